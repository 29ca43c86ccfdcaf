#include "ui/StaticLayerCache.h"

#include "ui/TimelineGeometry.h"

#include <QPainter>
#include <cmath>

namespace harlune {

bool StaticLayerCache::fieldChanged(TimelineField field) {
    if (drawing_.read.contains(field))
        stale_ = true;
    return stale_;
}

void StaticLayerCache::invalidateStrip(const QRectF& points) {
    const double scale = canvas_.scale;
    dirty_ += QRect(static_cast<int>(std::floor(points.left() * scale)),
                    static_cast<int>(std::floor(points.top() * scale)),
                    static_cast<int>(std::ceil(points.width() * scale)) + 1,
                    static_cast<int>(std::ceil(points.height() * scale)) + 1);
}

const QImage& StaticLayerCache::image(const TimelineCanvas& canvas, const Draw& draw) {
    const bool sameCanvas = !image_.isNull() && canvas.width == canvas_.width &&
                            canvas.height == canvas_.height && canvas.scale == canvas_.scale &&
                            canvas.dark == canvas_.dark && canvas.hoveredPoint == canvas_.hoveredPoint;
    if (stale_ || !sameCanvas) {
        canvas_ = canvas;
        image_ = QImage(static_cast<int>(pixelCount(canvas.width, canvas.scale)),
                        static_cast<int>(pixelCount(canvas.height, canvas.scale)),
                        QImage::Format_ARGB32_Premultiplied);
        {
            QPainter painter(&image_);
            drawing_ = draw(painter);
        }
        image_.setDevicePixelRatio(canvas.scale);
        stale_ = false;
        dirty_ = QRegion();
        ++rebuilds_;
    } else if (!dirty_.isEmpty()) {
        image_.setDevicePixelRatio(1);
        // Each strip on its own: the drawing walks only the columns its clip covers, and the
        // bounds of two strips far apart would take in everything between them.
        for (const QRect& strip : dirty_) {
            QPainter painter(&image_);
            painter.setClipRect(strip);
            drawing_ = draw(painter);
        }
        image_.setDevicePixelRatio(canvas.scale);
        dirty_ = QRegion();
        ++strips_;
    }
    return image_;
}

} // namespace harlune
