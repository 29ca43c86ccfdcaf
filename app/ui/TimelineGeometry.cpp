#include "ui/TimelineGeometry.h"

#include <QLocale>
#include <algorithm>
#include <array>
#include <cmath>

namespace harlune {

double roundAway(double value) {
    return std::round(value);
}

double frameToX(double frame, double scrollFrame, double framesPerPoint) {
    return (frame - scrollFrame) / framesPerPoint;
}

double lineX(double frame, double scrollFrame, double framesPerPoint) {
    return roundAway(frameToX(frame, scrollFrame, framesPerPoint)) + 0.5;
}

int64_t clampedFrame(double x, double scrollFrame, double framesPerPoint, int64_t frameCount) {
    const double frame = roundAway(scrollFrame + x * framesPerPoint);
    return static_cast<int64_t>(std::clamp(frame, 0.0, static_cast<double>(frameCount)));
}

ColumnFrames columnFrames(double scrollFrame, double framesPerPixel, int64_t column) {
    const double left = scrollFrame + framesPerPixel * static_cast<double>(column);
    const auto start = static_cast<int64_t>(std::trunc(left));
    const auto end = std::max(start + 1, static_cast<int64_t>(std::trunc(left + framesPerPixel)));
    return {start, end};
}

int64_t pixelCount(double widthPoints, double scale) {
    // A hair below the next integer still counts as it: widths × fractional ratios are inexact.
    return static_cast<int64_t>(std::ceil(widthPoints * scale - 1e-9));
}

bool drawsColumns(double framesPerPoint, double scale) {
    return framesPerPoint / scale >= 1;
}

bool drawsSampleDots(double framesPerPoint) {
    return 1 / framesPerPoint >= 6;
}

TimelineLayout timelineLayout(double width, double height, bool showLoudnessLane, double loudnessLaneHeight) {
    TimelineLayout layout;
    layout.width = width;
    layout.height = height;
    if (showLoudnessLane)
        layout.loudnessHeight =
            std::clamp(loudnessLaneHeight, 70.0, std::max(height - rulerHeight - 80, 70.0));
    layout.loudness = QRectF(0, height - layout.loudnessHeight, width, layout.loudnessHeight);
    layout.lanes =
        QRectF(0, rulerHeight, width, std::max(height - rulerHeight - layout.loudnessHeight, 20.0));
    return layout;
}

double TimelineLayout::laneHeight(int channelCount) const {
    const int n = std::max(channelCount, 1);
    return (lanes.height() - (n - 1)) / n;
}

QRectF TimelineLayout::lane(int channel, int channelCount) const {
    const double h = laneHeight(channelCount);
    return QRectF(lanes.left(), lanes.top() + (h + 1) * channel, lanes.width(), h);
}

std::optional<int> TimelineLayout::channelAt(double y, int channelCount) const {
    for (int channel = 0; channel < channelCount; ++channel) {
        const QRectF rect = lane(channel, channelCount);
        if (y >= rect.top() - 1 && y < rect.bottom())
            return channel;
    }
    return std::nullopt;
}

QRectF TimelineLayout::envelopeBand() const {
    return QRectF(loudness.left(), loudness.top() + 18, loudness.width(),
                  std::max(loudnessHeight - 24, 20.0));
}

double TimelineLayout::envelopeY(double dB, double rangeDB) const {
    const QRectF band = envelopeBand();
    return band.center().y() - band.height() * 0.5 * std::clamp(dB / rangeDB, -1.0, 1.0);
}

double TimelineLayout::envelopeDB(double y, double rangeDB) const {
    const QRectF band = envelopeBand();
    return std::clamp((band.center().y() - y) / (band.height() * 0.5) * rangeDB, -60.0, 24.0);
}

RulerSteps rulerSteps(double secondsPerPoint, double minLabelSpacing) {
    static constexpr std::array<double, 26> steps{
        0.0001, 0.0002, 0.0005, 0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.2,  0.5,  1,
        2,      5,      10,     15,    30,    60,    120,  300,  600,  900, 1800, 3600, 7200};
    double major = 7200;
    for (const double step : steps)
        if (step / secondsPerPoint >= minLabelSpacing) {
            major = step;
            break;
        }
    double divisor = 5;
    if (major == 15 || major == 30 || major == 900 || major == 1800)
        divisor = 3;
    else if (major == 60 || major == 120 || major == 600 || major == 3600 || major == 7200)
        divisor = 6;
    else if (major == 0.002 || major == 0.02 || major == 0.2 || major == 2)
        divisor = 4;
    return {major, major / divisor};
}

QString rulerLabel(double seconds, double step, TimeFormat format, double sampleRate) {
    const int decimals = step >= 1 ? 0 : step >= 0.1 ? 1 : step >= 0.01 ? 2 : step >= 0.001 ? 3 : 4;
    switch (format) {
    case TimeFormat::hms:
        return hms(seconds + 1e-9, decimals);
    case TimeFormat::seconds:
        return QString::number(seconds, 'f', decimals);
    case TimeFormat::samples:
        return QLocale().toString(static_cast<qlonglong>(seconds * sampleRate));
    }
    return {};
}

} // namespace harlune
