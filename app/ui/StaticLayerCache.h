#pragma once

#include "ui/TimelineDrawing.h"

#include <QImage>
#include <QRegion>
#include <functional>

namespace harlune {

/// The timeline's static drawing kept as a device-pixel image. It is drawn again in full only
/// when a field the last drawing read has changed, or the size, ratio or appearance did; a strip
/// can be redrawn on its own (a cursor that moved).
class StaticLayerCache {
public:
    using Draw = std::function<TimelineDrawing(QPainter& painter)>;

    /// A change to `field`; true when the picture is now stale.
    bool fieldChanged(TimelineField field);
    void invalidate() { stale_ = true; }
    /// Marks a strip in points for redrawing alone.
    void invalidateStrip(const QRectF& points);

    /// The up-to-date image for the canvas: rebuilt, patched or as it was.
    const QImage& image(const TimelineCanvas& canvas, const Draw& draw);

    const TimelineDrawing& lastDrawing() const { return drawing_; }
    int rebuildCount() const { return rebuilds_; }
    int stripCount() const { return strips_; }

private:
    QImage image_;
    TimelineDrawing drawing_;
    TimelineCanvas canvas_;
    QRegion dirty_;
    bool stale_ = true;
    int rebuilds_ = 0;
    int strips_ = 0;
};

} // namespace harlune
