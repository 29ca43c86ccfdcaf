#pragma once

#include "editor/TimeFormat.h"

#include <QRectF>
#include <QString>
#include <cstdint>
#include <optional>

namespace harlune {

// Positions are in points unless named "pixel"; a device pixel is 1/scale points.

inline constexpr double rulerHeight = 26;

/// Round to nearest, halves away from zero.
double roundAway(double value);
/// (frame − scrollFrame) / framesPerPoint.
double frameToX(double frame, double scrollFrame, double framesPerPoint);
/// Where a 1-point line for `frame` is stroked: the rounded x plus 0.5.
double lineX(double frame, double scrollFrame, double framesPerPoint);
/// The frame under x, rounded and clamped to 0...frameCount.
int64_t clampedFrame(double x, double scrollFrame, double framesPerPoint, int64_t frameCount);

/// Frames one device-pixel column covers: [start, end), never empty.
struct ColumnFrames {
    int64_t start = 0;
    int64_t end = 0;
};
ColumnFrames columnFrames(double scrollFrame, double framesPerPixel, int64_t column);
/// Device-pixel columns across a width in points.
int64_t pixelCount(double widthPoints, double scale);
/// Columns from the summaries at one frame per device pixel or more; single samples below.
bool drawsColumns(double framesPerPoint, double scale);
/// A dot per sample from 6 points per frame on.
bool drawsSampleDots(double framesPerPoint);

/// The areas of a view of `width` × `height` points.
struct TimelineLayout {
    double width = 0;
    double height = 0;
    double loudnessHeight = 0; ///< 0 when the lane is off
    QRectF lanes;
    QRectF loudness;

    QRectF lane(int channel, int channelCount) const;
    double laneHeight(int channelCount) const;
    /// The channel whose lane holds y (from one point above its top), absent past all lanes.
    std::optional<int> channelAt(double y, int channelCount) const;
    QRectF envelopeBand() const;
    double envelopeY(double dB, double rangeDB) const;
    double envelopeDB(double y, double rangeDB) const;
};
TimelineLayout timelineLayout(double width, double height, bool showLoudnessLane, double loudnessLaneHeight);

struct RulerSteps {
    double major = 0;
    double minor = 0;
};
RulerSteps rulerSteps(double secondsPerPoint, double minLabelSpacing);
QString rulerLabel(double seconds, double step, TimeFormat format, double sampleRate);

} // namespace harlune
