#pragma once

#include "ui/TimelineFields.h"

#include <QImage>
#include <QRectF>
#include <QString>
#include <optional>
#include <vector>

class QPainter;

namespace harlune {

class EditorModel;

/// What one drawing needs beyond the model: the view's size in points, the device pixel ratio of
/// the target, and the appearance.
struct TimelineCanvas {
    double width = 0;
    double height = 0;
    double scale = 1;
    bool dark = false;
    std::optional<int> hoveredPoint;
};

/// What a drawing leaves behind: the fields it read, and the target chips for hit tests.
struct TimelineDrawing {
    TimelineFields read;
    std::vector<std::pair<QRectF, std::optional<int>>> targetChips;
};

/// The static layer: everything but the playhead, in painting order. `painter` must paint onto a
/// device-pixel target without any transform; the drawing scales to points itself.
TimelineDrawing drawTimeline(QPainter& painter, const EditorModel& model, const TimelineCanvas& canvas);

/// The static layer as an image of width·scale × height·scale device pixels, carrying its ratio.
QImage renderTimeline(const EditorModel& model, const TimelineCanvas& canvas,
                      TimelineDrawing* drawing = nullptr);

/// The playhead line in device pixels: an odd number of columns centred on the frame's column.
QRect playheadPixels(double frame, double scrollFrame, double framesPerPoint, double scale, double height);

/// Device-pixel columns from the first to past the last that the range touches.
std::pair<int64_t, int64_t> rangeColumns(double lower, double upper, double scrollFrame,
                                         double framesPerPixel);

/// The hint over an empty document.
QString emptyHint();

} // namespace harlune
