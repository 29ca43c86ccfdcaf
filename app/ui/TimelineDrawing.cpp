#include "ui/TimelineDrawing.h"

#include "dsp/ParallelFor.h"
#include "editor/EditorModel.h"
#include "ui/ColumnRaster.h"
#include "ui/Theme.h"
#include "ui/TimelineGeometry.h"

#include <QFontDatabase>
#include <QFontMetricsF>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <cmath>
#include <limits>

namespace harlune {
namespace {

constexpr double minus6dB = 0.5011872336272722;
constexpr double minus12dB = 0.251188643150958;
/// Device pixels between frames under which sample lines are drawn as per-column spans.
constexpr double denseSampleSpacing = 4;

QColor withAlpha(QColor colour, double alpha) {
    colour.setAlphaF(static_cast<float>(alpha));
    return colour;
}

QFont systemFont(double points, QFont::Weight weight = QFont::Normal) {
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPointSizeF(points);
    font.setWeight(weight);
    return font;
}

QFont digitFont(double points, QFont::Weight weight = QFont::Normal) {
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPointSizeF(points);
    font.setWeight(weight);
    return font;
}

/// One drawing pass: the model, the canvas, and what was read.
class Pass {
public:
    Pass(QPainter& painter, const EditorModel& model, const TimelineCanvas& canvas)
        : painter_(painter), model_(model), canvas_(canvas) {}

    TimelineDrawing run();

private:
    template <typename T> const T& read(TimelineField field, const T& value) {
        drawing_.read.add(field);
        return value;
    }
    double fpp() { return read(TimelineField::framesPerPoint, model_.framesPerPoint()); }
    double scroll() { return read(TimelineField::scrollFrame, model_.scrollFrame()); }
    const AudioContent& content() { return read(TimelineField::content, model_.content()); }
    double xOf(double frame) { return frameToX(frame, scroll(), fpp()); }

    void drawLane(int channel, const QRectF& lane);
    void drawWaveform(int channel, const QRectF& lane, double halfHeight);
    void drawColumns(int channel, const QRectF& lane, double halfHeight, const QColor& peak,
                     const QColor& rms);
    void drawSamples(int channel, const QRectF& lane, double halfHeight, const QColor& colour);
    void drawDenseSamples(int64_t first, const std::vector<float>& samples, const QRectF& lane,
                          double halfHeight, const QColor& colour);
    void drawEmptyHint();
    void drawSelection();
    void drawMarkerLines();
    void drawCursor();
    void drawLoudnessLane();
    void drawEnvelope();
    void drawGrid();
    void drawRuler();
    void verticalLine(double x, double top, double bottom, const QColor& colour, double width = 1);

    QPainter& painter_;
    const EditorModel& model_;
    const TimelineCanvas& canvas_;
    TimelineLayout layout_;
    TimelineDrawing drawing_;
    /// The target image when columns may be written into it directly: an unclipped drawing of
    /// opaque colours onto premultiplied 32-bit pixels.
    QImage* directImage_ = nullptr;

    const QColor& colour(const Theme::Colour& themed) const { return themed.of(canvas_.dark); }
};

TimelineDrawing Pass::run() {
    QPaintDevice* device = painter_.device();
    if (device && device->devType() == QInternal::Image && !painter_.hasClipping() &&
        painter_.transform().isIdentity()) {
        auto* image = static_cast<QImage*>(device);
        if (image->format() == QImage::Format_ARGB32_Premultiplied && image->devicePixelRatio() == 1)
            directImage_ = image;
    }
    painter_.save();
    painter_.scale(canvas_.scale, canvas_.scale);
    layout_ = timelineLayout(canvas_.width, canvas_.height,
                             read(TimelineField::showLoudnessLane, model_.showLoudnessLane()),
                             read(TimelineField::loudnessLaneHeight, model_.loudnessLaneHeight()));
    const int channels = content().channelCount();
    // The background only where the lanes leave it showing: they fill their own, and a fill of
    // the whole canvas is one more pass over every pixel (18 MB at a ratio of 2).
    double uncovered = 0;
    for (int channel = 0; channel < channels; ++channel) {
        const QRectF lane = layout_.lane(channel, channels);
        if (lane.top() > uncovered)
            painter_.fillRect(QRectF(0, uncovered, canvas_.width, lane.top() - uncovered),
                              colour(Theme::background));
        uncovered = std::max(uncovered, lane.bottom());
    }
    if (uncovered < canvas_.height)
        painter_.fillRect(QRectF(0, uncovered, canvas_.width, canvas_.height - uncovered),
                          colour(Theme::background));
    for (int channel = 0; channel < channels; ++channel)
        drawLane(channel, layout_.lane(channel, channels));
    if (content().frameCount() == 0)
        drawEmptyHint();
    drawSelection();
    drawMarkerLines();
    drawCursor();
    if (model_.showLoudnessLane())
        drawLoudnessLane();
    if (read(TimelineField::showGrid, model_.showGrid()))
        drawGrid();
    drawRuler();
    painter_.restore();
    return std::move(drawing_);
}

void Pass::verticalLine(double x, double top, double bottom, const QColor& colour, double width) {
    painter_.fillRect(QRectF(x - width / 2, top, width, bottom - top), colour);
}

void Pass::drawLane(int channel, const QRectF& lane) {
    painter_.fillRect(lane, colour(Theme::laneBackground));
    const double halfHeight = lane.height() / 2 * read(TimelineField::amplitudeZoom, model_.amplitudeZoom());
    const double midY = lane.center().y();
    for (const double level : {minus6dB, minus12dB}) {
        const double offset = halfHeight * level;
        if (offset > lane.height() / 2)
            continue;
        painter_.fillRect(QRectF(lane.left(), midY - offset - 0.5, lane.width(), 1), colour(Theme::gridLine));
        painter_.fillRect(QRectF(lane.left(), midY + offset - 0.5, lane.width(), 1), colour(Theme::gridLine));
    }
    painter_.fillRect(QRectF(lane.left(), midY - 0.5, lane.width(), 1), colour(Theme::centerLine));
    painter_.save();
    painter_.setClipRect(lane, Qt::IntersectClip);
    drawWaveform(channel, lane, halfHeight);
    painter_.restore();

    // The channel's pill.
    const bool active = read(TimelineField::activeChannels, model_.activeChannels()).contains(channel);
    read(TimelineField::fileInfo, model_.fileInfo());
    const QString name = model_.channelName(channel);
    const QFont font = systemFont(10, QFont::DemiBold);
    const QFontMetricsF metrics(font);
    const QRectF pill(6, lane.top() + 5, metrics.horizontalAdvance(name) + 10, metrics.height() + 2);
    painter_.save();
    painter_.setRenderHint(QPainter::Antialiasing);
    painter_.setPen(Qt::NoPen);
    painter_.setBrush(
        withAlpha(colour(Theme::quaternaryLabel), colour(Theme::quaternaryLabel).alphaF() * 0.5));
    painter_.drawRoundedRect(pill, pill.height() / 2, pill.height() / 2);
    painter_.setFont(font);
    painter_.setPen(active ? colour(Theme::secondaryLabel) : colour(Theme::tertiaryLabel));
    painter_.drawText(QPointF(pill.left() + 5, pill.top() + 1 + metrics.ascent()), name);
    if (model_.amplitudeZoom() != 1) {
        const QFont zoomFont = digitFont(9);
        painter_.setFont(zoomFont);
        painter_.setPen(colour(Theme::tertiaryLabel));
        painter_.drawText(QPointF(lane.right() - 26, lane.top() + 4 + QFontMetricsF(zoomFont).ascent()),
                          QStringLiteral("×%1").arg(model_.amplitudeZoom(), 0, 'f', 0));
    }
    painter_.restore();
}

void Pass::drawWaveform(int channel, const QRectF& lane, double halfHeight) {
    if (content().frameCount() == 0)
        return;
    const bool active = model_.activeChannels().contains(channel);
    const QColor& peak = active ? colour(Theme::waveform) : colour(Theme::waveformDimmed);
    const QColor& rms = active ? colour(Theme::waveformRMS) : colour(Theme::waveformDimmed);
    if (drawsColumns(fpp(), canvas_.scale))
        drawColumns(channel, lane, halfHeight, peak, rms);
    else
        drawSamples(channel, lane, halfHeight, peak);
}

void Pass::drawColumns(int channel, const QRectF& lane, double halfHeight, const QColor& peakColour,
                       const QColor& rmsColour) {
    const double scale = canvas_.scale;
    const double framesPerPixel = fpp() / scale;
    const double scrollFrame = scroll();
    const AudioContent& audio = content();
    const int64_t frameCount = audio.frameCount();
    const EnvelopeSet& envelopes = read(TimelineField::envelopes, model_.envelopes());
    const bool flat = envelopes.isFlat();
    const double midY = lane.center().y() * scale;
    const double half = halfHeight * scale;
    const int laneTop = static_cast<int>(std::floor(lane.top() * scale));
    const int clipHeight = std::max(1, static_cast<int>(std::lround(2 * scale)));

    // Columns are integer device-pixel rectangles, so the drawing goes untransformed.
    painter_.save();
    painter_.resetTransform();
    int64_t columns = pixelCount(lane.width(), scale);
    int64_t firstColumn = 0;
    if (painter_.hasClipping()) {
        // A strip redrawn alone: only the columns it covers, plus one on either side.
        const QRectF bounds = painter_.clipBoundingRect();
        firstColumn = std::max<int64_t>(0, static_cast<int64_t>(std::floor(bounds.left())) - 1);
        columns = std::min(columns, static_cast<int64_t>(std::ceil(bounds.right())) + 1);
    }
    std::vector<QRect> peaks;
    std::vector<QRect> cores;
    std::vector<QRect> clips;
    peaks.reserve(static_cast<size_t>(columns));
    cores.reserve(static_cast<size_t>(columns));
    // The columns' summaries first, shared among the cores when there are many: on a long file
    // each column reads a few places in memory that no cache holds, and those reads dominate.
    const int64_t count = std::max<int64_t>(columns - firstColumn, 0);
    std::vector<PeakSummary> summaries(static_cast<size_t>(count));
    constexpr int64_t columnsPerTask = 256;
    const int64_t tasks = (count + columnsPerTask - 1) / columnsPerTask;
    parallelFor(tasks, count >= 2 * columnsPerTask, [&](int64_t task) {
        const int64_t end = std::min(count, (task + 1) * columnsPerTask);
        int64_t hint = -1;
        for (int64_t k = task * columnsPerTask; k < end; ++k) {
            const ColumnFrames frames = columnFrames(scrollFrame, framesPerPixel, firstColumn + k);
            if (frames.start < frameCount && frames.end > 0)
                summaries[static_cast<size_t>(k)] = audio.peaks(
                    channel, FrameRange(std::max<int64_t>(frames.start, 0), std::min(frames.end, frameCount)),
                    hint);
        }
    });
    for (int64_t i = firstColumn; i < columns; ++i) {
        const ColumnFrames frames = columnFrames(scrollFrame, framesPerPixel, i);
        if (frames.start >= frameCount)
            break;
        PeakSummary summary = summaries[static_cast<size_t>(i - firstColumn)];
        if (summary.isEmpty())
            continue;
        if (!flat) {
            const auto gain = static_cast<float>(std::pow(
                10.0,
                envelopes.gainDB(channel, static_cast<double>(frames.start) + framesPerPixel * 0.5) / 20));
            summary.min *= gain;
            summary.max *= gain;
            summary.sumSquares *= gain * gain;
        }
        const int x = static_cast<int>(i);
        const int top = static_cast<int>(std::floor(midY - half * summary.max));
        const int bottom = std::max(top + 1, static_cast<int>(std::ceil(midY - half * summary.min)));
        peaks.emplace_back(x, top, 1, bottom - top);
        const float rms = summary.rms();
        const double rmsTop = midY - half * std::min(rms, summary.max);
        const double rmsBottom = midY - half * std::max(summary.min, -rms);
        if (rmsTop < rmsBottom) {
            const int coreTop = static_cast<int>(std::floor(rmsTop));
            const int coreBottom = std::max(coreTop + 1, static_cast<int>(std::ceil(rmsBottom)));
            cores.emplace_back(x, coreTop, 1, coreBottom - coreTop);
        }
        if (summary.max >= 0.999f || summary.min <= -0.999f)
            clips.emplace_back(x, laneTop, 1, clipHeight);
    }
    if (directImage_) {
        const int firstRow = static_cast<int>(std::lround(lane.top() * scale));
        const int endRow = static_cast<int>(std::lround(lane.bottom() * scale));
        rasterColumns(*directImage_, firstRow, endRow, peaks, qPremultiply(peakColour.rgba()), cores,
                      qPremultiply(rmsColour.rgba()));
        rasterColumns(*directImage_, firstRow, endRow, clips, qPremultiply(colour(Theme::clip).rgba()), {},
                      0);
    } else {
        for (const QRect& rect : peaks)
            painter_.fillRect(rect, peakColour);
        for (const QRect& rect : cores)
            painter_.fillRect(rect, rmsColour);
        for (const QRect& rect : clips)
            painter_.fillRect(rect, colour(Theme::clip));
    }
    painter_.restore();
}

void Pass::drawSamples(int channel, const QRectF& lane, double halfHeight, const QColor& colour) {
    const AudioContent& audio = content();
    const double framesPerPoint = fpp();
    const double scrollFrame = scroll();
    const double width = read(TimelineField::viewWidth, model_.viewWidth());
    const int64_t first = std::max<int64_t>(static_cast<int64_t>(std::floor(scrollFrame)) - 1, 0);
    const int64_t last = std::min(static_cast<int64_t>(std::ceil(scrollFrame + width * framesPerPoint)) + 2,
                                  audio.frameCount());
    if (last <= first)
        return;
    std::vector<float> samples(static_cast<size_t>(last - first));
    for (int64_t frame = first; frame < last; ++frame)
        samples[static_cast<size_t>(frame - first)] = audio.sample(channel, frame);
    const EnvelopeSet& envelopes = read(TimelineField::envelopes, model_.envelopes());
    if (!envelopes.isFlat())
        for (int64_t frame = first; frame < last; ++frame)
            samples[static_cast<size_t>(frame - first)] *= static_cast<float>(
                std::pow(10.0, envelopes.gainDB(channel, static_cast<double>(frame)) / 20));
    const double midY = lane.center().y();
    if (canvas_.scale / framesPerPoint < denseSampleSpacing) {
        drawDenseSamples(first, samples, lane, halfHeight, colour);
        return;
    }
    std::vector<QPointF> points(samples.size());
    for (size_t i = 0; i < samples.size(); ++i)
        points[i] = QPointF(
            frameToX(static_cast<double>(first) + static_cast<double>(i), scrollFrame, framesPerPoint),
            midY - halfHeight * samples[i]);
    painter_.save();
    painter_.setRenderHint(QPainter::Antialiasing);
    // Flat caps: the raster engine strokes a round cap on a tall antialiased segment some twenty
    // times slower (166 ms against 7 for full-scale noise at 8 points per frame and a ratio of 2).
    // Discs at the vertices make the joins round instead; the sample dots cover them when drawn.
    constexpr double penWidth = 1.25;
    QPen pen(colour, penWidth);
    pen.setCapStyle(Qt::FlatCap);
    painter_.setPen(pen);
    std::vector<QLineF> segments;
    segments.reserve(points.size());
    for (size_t i = 1; i < points.size(); ++i)
        segments.emplace_back(points[i - 1], points[i]);
    painter_.drawLines(segments.data(), static_cast<int>(segments.size()));
    painter_.setPen(Qt::NoPen);
    painter_.setBrush(colour);
    const double radius = drawsSampleDots(framesPerPoint) ? 2.0 : penWidth / 2;
    for (const QPointF& point : points)
        painter_.drawEllipse(point, radius, radius);
    painter_.restore();
}

void Pass::drawDenseSamples(int64_t first, const std::vector<float>& samples, const QRectF& lane,
                            double halfHeight, const QColor& colour) {
    // Frames a few device pixels apart make the line a run of near-vertical strokes; antialiased,
    // full-scale noise costs the painter some 200 ms per lane. Each device column instead takes
    // the span the line crosses in it, widened by half the pen, drawn like the columns further out.
    const double scale = canvas_.scale;
    const double framesPerPoint = fpp();
    const double scrollFrame = scroll();
    const double halfPen = 0.625 * scale;
    const int64_t columns = pixelCount(lane.width(), scale);
    std::vector<float> tops(static_cast<size_t>(columns), std::numeric_limits<float>::max());
    std::vector<float> bottoms(static_cast<size_t>(columns), std::numeric_limits<float>::lowest());
    const auto xAt = [&](size_t i) {
        return frameToX(static_cast<double>(first) + static_cast<double>(i), scrollFrame, framesPerPoint) *
               scale;
    };
    const auto yAt = [&](size_t i) {
        return (lane.center().y() - halfHeight * samples[i]) * scale;
    };
    const auto widen = [&](int64_t column, double y0, double y1) {
        if (column < 0 || column >= columns)
            return;
        auto& top = tops[static_cast<size_t>(column)];
        auto& bottom = bottoms[static_cast<size_t>(column)];
        top = std::min(top, static_cast<float>(std::min(y0, y1) - halfPen));
        bottom = std::max(bottom, static_cast<float>(std::max(y0, y1) + halfPen));
    };
    for (size_t i = 0; i + 1 < samples.size(); ++i) {
        const double x0 = xAt(i), x1 = xAt(i + 1), y0 = yAt(i), y1 = yAt(i + 1);
        const double slope = (y1 - y0) / (x1 - x0);
        for (auto column = static_cast<int64_t>(std::floor(x0));
             column <= static_cast<int64_t>(std::floor(x1)); ++column) {
            const double left = std::max(x0, static_cast<double>(column));
            const double right = std::min(x1, static_cast<double>(column + 1));
            widen(column, y0 + slope * (left - x0), y0 + slope * (right - x0));
        }
    }
    const double laneTop = lane.top() * scale;
    const double laneBottom = lane.bottom() * scale;
    std::vector<QRect> rects;
    rects.reserve(static_cast<size_t>(columns));
    for (int64_t x = 0; x < columns; ++x) {
        const auto c = static_cast<size_t>(x);
        if (tops[c] > bottoms[c])
            continue;
        const int top = static_cast<int>(std::floor(std::max<double>(tops[c], laneTop)));
        const int bottom = static_cast<int>(std::ceil(std::min<double>(bottoms[c], laneBottom)));
        if (top < bottom)
            rects.emplace_back(static_cast<int>(x), top, 1, bottom - top);
    }
    if (directImage_) {
        rasterColumns(*directImage_, static_cast<int>(std::lround(laneTop)),
                      static_cast<int>(std::lround(laneBottom)), rects, qPremultiply(colour.rgba()), {}, 0);
        return;
    }
    painter_.save();
    painter_.resetTransform();
    for (const QRect& rect : rects)
        painter_.fillRect(rect, colour);
    painter_.restore();
}

void Pass::drawEmptyHint() {
    painter_.save();
    painter_.setFont(systemFont(15));
    painter_.setPen(colour(Theme::secondaryLabel));
    painter_.drawText(layout_.lanes, Qt::AlignCenter, emptyHint());
    painter_.restore();
}

void Pass::drawSelection() {
    const auto& selection = read(TimelineField::selection, model_.selection());
    if (!selection)
        return;
    const double startX = xOf(static_cast<double>(selection->lower));
    const double endX = xOf(static_cast<double>(selection->upper));
    if (endX < 0 || startX > canvas_.width)
        return;
    const double scale = canvas_.scale;
    const auto [firstColumn, endColumn] =
        rangeColumns(static_cast<double>(selection->lower), static_cast<double>(selection->upper), scroll(),
                     fpp() / scale);
    const int left =
        static_cast<int>(std::clamp<int64_t>(firstColumn, -1, pixelCount(canvas_.width, scale) + 1));
    const int right = static_cast<int>(
        std::clamp<int64_t>(std::max(endColumn, firstColumn + std::max<int64_t>(1, std::lround(scale))), -1,
                            pixelCount(canvas_.width, scale) + 1));
    const ChannelSet& active = read(TimelineField::activeChannels, model_.activeChannels());
    const int channels = content().channelCount();
    painter_.save();
    painter_.resetTransform();
    for (int channel = 0; channel < channels; ++channel) {
        if (!active.contains(channel))
            continue;
        const QRectF lane = layout_.lane(channel, channels);
        const int top = static_cast<int>(std::round(lane.top() * scale));
        const int bottom = static_cast<int>(std::round(lane.bottom() * scale));
        painter_.fillRect(QRect(left, top, right - left, bottom - top), colour(Theme::selection));
    }
    if (model_.showLoudnessLane()) {
        const int top = static_cast<int>(std::round(layout_.loudness.top() * scale));
        const int bottom = static_cast<int>(std::round(layout_.loudness.bottom() * scale));
        painter_.fillRect(QRect(left, top, right - left, bottom - top),
                          withAlpha(colour(Theme::selection), 0.12));
    }
    painter_.restore();
    for (const double frame : {static_cast<double>(selection->lower), static_cast<double>(selection->upper)})
        verticalLine(lineX(frame, scroll(), fpp()), layout_.lanes.top(), layout_.lanes.bottom(),
                     colour(Theme::selectionEdge));
}

void Pass::drawMarkerLines() {
    const QColor line = withAlpha(colour(Theme::marker), 0.8);
    for (const Marker& marker : read(TimelineField::markers, model_.markers())) {
        const double x = xOf(static_cast<double>(marker.frame));
        if (x >= -1 && x <= canvas_.width + 1)
            verticalLine(std::round(x) + 0.5, rulerHeight, canvas_.height, line);
    }
}

void Pass::drawCursor() {
    if (model_.selection())
        return;
    const double x =
        lineX(static_cast<double>(read(TimelineField::cursor, model_.cursor())), scroll(), fpp());
    if (x < 0 || x > canvas_.width + 0.5)
        return;
    verticalLine(x, rulerHeight, canvas_.height, withAlpha(colour(Theme::cursor), 0.85));
}

void Pass::drawLoudnessLane() {
    const QRectF lane = layout_.loudness;
    painter_.fillRect(lane, colour(Theme::laneBackground));
    painter_.fillRect(QRectF(lane.left(), lane.top(), lane.width(), 1), colour(Theme::laneBorder));
    const double L = layout_.loudnessHeight;
    const auto yOf = [&](double lufs) {
        return lane.bottom() - 4 - std::clamp((lufs + 54) / 54, 0.0, 1.0) * (L - 18);
    };
    painter_.save();
    painter_.setFont(digitFont(9));
    painter_.setPen(colour(Theme::tertiaryLabel));
    for (int level = -48; level <= -6; level += 6) {
        painter_.fillRect(QRectF(lane.left(), yOf(level) - 0.5, lane.width(), 1), colour(Theme::gridLine));
        if ((level + 48) % 12 == 0)
            painter_.drawText(QPointF(lane.right() - 24, yOf(level) - 2), QString::number(level));
    }
    painter_.restore();

    const auto& result = read(TimelineField::contentLoudness, model_.contentLoudness());
    painter_.save();
    painter_.setRenderHint(QPainter::Antialiasing);
    painter_.setFont(systemFont(10));
    if (!result) {
        if (read(TimelineField::isAnalyzing, model_.isAnalyzing())) {
            painter_.setPen(colour(Theme::secondaryLabel));
            painter_.drawText(QPointF(8, lane.top() + 4 + QFontMetricsF(painter_.font()).ascent()),
                              QStringLiteral("Measuring loudness…"));
        }
        painter_.restore();
        drawEnvelope();
        return;
    }
    const double target = read(TimelineField::targetLUFS, model_.targetLUFS());
    painter_.fillRect(QRectF(lane.left(), yOf(target) - 0.5, lane.width(), 1), colour(Theme::loudnessTarget));
    const QString targetText = QStringLiteral("Target %1").arg(target, 0, 'f', 0);
    painter_.setPen(colour(Theme::loudnessTarget));
    painter_.drawText(
        QPointF(lane.right() - 30 - QFontMetricsF(painter_.font()).horizontalAdvance(targetText),
                yOf(target) - 11 + 8),
        targetText);
    painter_.fillRect(QRectF(lane.left(), yOf(result->integratedLUFS) - 0.5, lane.width(), 1),
                      withAlpha(colour(Theme::loudnessIntegrated), 0.8));

    const EnvelopeSet& envelopes = read(TimelineField::envelopes, model_.envelopes());
    const double sampleRate = content().sampleRate();
    const int channels = content().channelCount();
    const double leftSecond = scroll() / sampleRate;
    const double rightSecond = (scroll() + canvas_.width * fpp()) / sampleRate;
    const auto drawCurve = [&](const std::vector<float>& values, double windowSeconds,
                               const QColor& curveColour, double width) {
        if (values.empty())
            return;
        const double hop = result->hopSeconds;
        const auto first = static_cast<int64_t>(
            std::clamp(std::floor(leftSecond / hop) - 2, 0.0, static_cast<double>(values.size())));
        const auto last = static_cast<int64_t>(
            std::clamp(std::ceil(rightSecond / hop) + 2, 0.0, static_cast<double>(values.size())));
        const int64_t stride = std::max<int64_t>(
            1, static_cast<int64_t>(static_cast<double>(last - first) / std::max(canvas_.width, 1.0)));
        QPainterPath path;
        bool open = false;
        for (int64_t index = first; index < last; index += stride) {
            float value = values[static_cast<size_t>(index)];
            for (int64_t k = index + 1; k < std::min(index + stride, last); ++k)
                value = std::max(value, values[static_cast<size_t>(k)]);
            if (value <= -100) {
                open = false;
                continue;
            }
            // A value stands at the end of its window, stepped back by half a window.
            const double seconds = static_cast<double>(index + 1) * hop - windowSeconds / 2;
            double lufs = value;
            if (!envelopes.isFlat()) {
                double power = 0;
                for (int channel = 0; channel < channels; ++channel)
                    power += std::pow(10.0, envelopes.gainDB(channel, seconds * sampleRate) / 10);
                lufs += 10 * std::log10(power / std::max(channels, 1));
            }
            const QPointF point(xOf(seconds * sampleRate), yOf(lufs));
            if (open)
                path.lineTo(point);
            else
                path.moveTo(point);
            open = true;
        }
        painter_.setPen(QPen(curveColour, width));
        painter_.setBrush(Qt::NoBrush);
        painter_.drawPath(path);
    };
    drawCurve(result->momentary, 0.4, colour(Theme::loudnessMomentary), 1);
    drawCurve(result->shortTerm, 3, colour(Theme::loudnessShortTerm), 1.6);
    painter_.restore();

    drawEnvelope();

    painter_.save();
    painter_.setFont(systemFont(10));
    const QFontMetricsF metrics(painter_.font());
    QPointF at(8, lane.top() + 4 + metrics.ascent());
    const std::pair<QString, QColor> parts[] = {
        {QStringLiteral("Short-term LUFS  "), colour(Theme::loudnessShortTerm)},
        {QStringLiteral("Integrated %1  ").arg(result->integratedLUFS, 0, 'f', 1),
         colour(Theme::loudnessIntegrated)},
        {QStringLiteral("   Gain ±%1 dB")
             .arg(static_cast<int>(read(TimelineField::envelopeRangeDB, model_.envelopeRangeDB()))),
         colour(Theme::envelope)}};
    for (const auto& [text, textColour] : parts) {
        painter_.setPen(textColour);
        painter_.drawText(at, text);
        at.rx() += metrics.horizontalAdvance(text);
    }
    painter_.restore();
}

void Pass::drawEnvelope() {
    const EnvelopeSet& envelopes = read(TimelineField::envelopes, model_.envelopes());
    const std::optional<int> target = read(TimelineField::envelopeTarget, model_.envelopeTarget());
    const double range = read(TimelineField::envelopeRangeDB, model_.envelopeRangeDB());
    const QRectF lane = layout_.loudness;
    const double zeroY = layout_.envelopeY(0, range);
    const QColor& curveColour = colour(Theme::envelope);
    painter_.save();
    painter_.setRenderHint(QPainter::Antialiasing);
    painter_.setClipRect(lane, Qt::IntersectClip);
    painter_.fillRect(QRectF(lane.left(), zeroY - 0.5, lane.width(), 1), withAlpha(curveColour, 0.25));
    const auto curve = [&](const GainEnvelope& envelope, double step) {
        QPolygonF polygon;
        for (double x = 0; x <= canvas_.width + step; x += step)
            polygon << QPointF(x, layout_.envelopeY(envelope.gainDB(scroll() + x * fpp()), range));
        return polygon;
    };
    const int channels = content().channelCount();
    for (int channel = -1; channel < channels; ++channel) {
        const std::optional<int> which = channel < 0 ? std::nullopt : std::optional<int>(channel);
        if (which == target || (channel >= 0 && envelopes[which].points().empty()))
            continue;
        painter_.setPen(QPen(withAlpha(curveColour, 0.3), 1));
        painter_.drawPolyline(curve(envelopes[which], 4));
    }
    const GainEnvelope& shown = envelopes[target];
    QPolygonF line = curve(shown, 2);
    QPolygonF area = line;
    area << QPointF(line.last().x(), zeroY) << QPointF(line.first().x(), zeroY);
    painter_.setPen(Qt::NoPen);
    painter_.setBrush(colour(Theme::envelopeFill));
    painter_.drawPolygon(area);
    painter_.setPen(QPen(withAlpha(curveColour, shown.points().empty() ? 0.45 : 0.95), 1.5));
    painter_.setBrush(Qt::NoBrush);
    painter_.drawPolyline(line);
    painter_.setPen(Qt::NoPen);
    painter_.setBrush(curveColour);
    int index = 0;
    for (const EnvelopePoint& point : shown.points()) {
        const double radius = canvas_.hoveredPoint == index++ ? 4.5 : 3;
        painter_.drawEllipse(
            QPointF(xOf(static_cast<double>(point.frame)), layout_.envelopeY(point.gainDB, range)), radius,
            radius);
    }

    // Target chips, right to left: the master last.
    const QFont font = systemFont(10, QFont::DemiBold);
    const QFontMetricsF metrics(font);
    painter_.setFont(font);
    double right = lane.right() - 8;
    for (int channel = channels - 1; channel >= -1; --channel) {
        const std::optional<int> which = channel < 0 ? std::nullopt : std::optional<int>(channel);
        const QString text = channel < 0 ? QStringLiteral("All") : model_.channelName(channel);
        const double width = metrics.horizontalAdvance(text) + 12;
        const QRectF chip(right - width, lane.top() + 2, width, 15);
        right -= width + 4;
        if (which == target) {
            painter_.setPen(Qt::NoPen);
            painter_.setBrush(curveColour);
        } else {
            painter_.setPen(QPen(withAlpha(curveColour, 0.6), 1));
            painter_.setBrush(Qt::NoBrush);
        }
        painter_.drawRoundedRect(chip, 7, 7);
        painter_.setPen(which == target ? colour(Theme::laneBackground) : curveColour);
        painter_.drawText(chip, Qt::AlignCenter, text);
        if (channel >= 0 && !envelopes[which].isFlat()) {
            painter_.setPen(Qt::NoPen);
            painter_.setBrush(curveColour);
            painter_.drawEllipse(QPointF(chip.right() - 2, chip.top() + 2), 2, 2);
        }
        drawing_.targetChips.emplace_back(chip, which);
    }
    painter_.setPen(curveColour);
    painter_.setFont(systemFont(10));
    const QString prefix = QStringLiteral("Gain for ");
    painter_.drawText(QPointF(right - QFontMetricsF(painter_.font()).horizontalAdvance(prefix),
                              lane.top() + 2 + metrics.ascent() + 1),
                      prefix);
    painter_.restore();
}

void Pass::drawGrid() {
    const TempoGrid& grid = read(TimelineField::grid, model_.grid());
    const double sampleRate = content().sampleRate();
    const double beatFrames = grid.beatFrames(sampleRate);
    const double barPoints = beatFrames * grid.beatsPerBar / fpp();
    if (barPoints <= 0.5)
        return;
    int64_t stride = 1;
    while (barPoints * static_cast<double>(stride) < 14)
        stride *= 2;
    const int64_t firstBar = grid.barIndex(scroll(), sampleRate);
    const int64_t lastBar = grid.barIndex(scroll() + canvas_.width * fpp(), sampleRate) + 1;
    const double top = rulerHeight;
    const QColor gridBar = colour(Theme::gridBar);
    if (beatFrames / fpp() >= 10)
        for (int64_t bar = firstBar; bar <= lastBar; ++bar)
            for (int beat = 1; beat < grid.beatsPerBar; ++beat)
                verticalLine(lineX(static_cast<double>(grid.downbeatFrame) +
                                       beatFrames * static_cast<double>(bar * grid.beatsPerBar + beat),
                                   scroll(), fpp()),
                             top, canvas_.height, withAlpha(gridBar, 0.12));
    const int64_t alignedFirst = firstBar - ((firstBar % stride) + stride) % stride;
    const bool labels = barPoints * static_cast<double>(stride) >= 22;
    painter_.save();
    painter_.setFont(digitFont(9, QFont::DemiBold));
    painter_.setPen(withAlpha(gridBar, 0.9));
    const double ascent = QFontMetricsF(painter_.font()).ascent();
    for (int64_t bar = alignedFirst; bar <= lastBar; bar += stride) {
        const double x = lineX(grid.barFrame(bar, sampleRate), scroll(), fpp());
        verticalLine(x, top, canvas_.height, withAlpha(gridBar, 0.35));
        if (labels && bar >= 0)
            painter_.drawText(QPointF(x + 3, 27 + ascent), QString::number(bar));
    }
    painter_.restore();
}

void Pass::drawRuler() {
    const double width = canvas_.width;
    painter_.fillRect(QRectF(0, 0, width, rulerHeight), colour(Theme::rulerBackground));
    painter_.fillRect(QRectF(0, rulerHeight - 1, width, 1), colour(Theme::laneBorder));
    const double sampleRate = content().sampleRate();
    const RulerSteps steps = rulerSteps(fpp() / sampleRate, 90);
    const TimeFormat format = read(TimelineField::timeFormat, model_.timeFormat());
    painter_.save();
    painter_.setFont(digitFont(10));
    const double ascent = QFontMetricsF(painter_.font()).ascent();
    const QColor tick = colour(Theme::rulerText);
    const double leftSecond = scroll() / sampleRate;
    const double rightSecond = (scroll() + width * fpp()) / sampleRate;
    for (double t = steps.minor * std::floor(leftSecond / steps.minor); t <= rightSecond + steps.minor * 1e-6;
         t += steps.minor) {
        const double x = std::round((sampleRate * t - scroll()) / fpp()) + 0.5;
        const bool major = std::abs(steps.major * std::round(t / steps.major) - t) < steps.minor * 0.01;
        const double length = major ? 9 : 4;
        verticalLine(x, 25 - length, 25, tick);
        if (major) {
            painter_.setPen(tick);
            painter_.drawText(QPointF(x + 3, 3 + ascent),
                              rulerLabel(std::max(t, 0.0), steps.major, format, sampleRate));
        }
    }
    if (const auto& selection = model_.selection()) {
        const double startX = xOf(static_cast<double>(selection->lower));
        const double endX = xOf(static_cast<double>(selection->upper));
        painter_.fillRect(QRectF(startX, 22, std::max(endX - startX, 1.0), 3),
                          withAlpha(colour(Theme::selectionEdge), 0.35));
    }
    const QFont flagFont = systemFont(10, QFont::Medium);
    const QFontMetricsF metrics(flagFont);
    painter_.setFont(flagFont);
    painter_.setRenderHint(QPainter::Antialiasing);
    for (const Marker& marker : model_.markers()) {
        const double x = std::round(xOf(static_cast<double>(marker.frame)));
        if (x <= -120 || x >= width + 1)
            continue;
        const double flagWidth = std::min(metrics.horizontalAdvance(marker.name) + 8, 140.0);
        const QRectF flag(x, 2, flagWidth, 14);
        painter_.setPen(Qt::NoPen);
        painter_.setBrush(colour(Theme::marker));
        painter_.drawRoundedRect(flag, 3, 3);
        painter_.fillRect(QRectF(x, 2, 1.5, rulerHeight - 2), colour(Theme::marker));
        painter_.save();
        painter_.setClipRect(flag.adjusted(4, 0, -4, 0), Qt::IntersectClip);
        painter_.setPen(QColor::fromRgbF(0, 0, 0, 0.85f));
        painter_.drawText(QPointF(x + 4, 2.5 + metrics.ascent()), marker.name);
        painter_.restore();
    }
    painter_.restore();
}

} // namespace

TimelineDrawing drawTimeline(QPainter& painter, const EditorModel& model, const TimelineCanvas& canvas) {
    return Pass(painter, model, canvas).run();
}

QImage renderTimeline(const EditorModel& model, const TimelineCanvas& canvas, TimelineDrawing* drawing) {
    QImage image(static_cast<int>(pixelCount(canvas.width, canvas.scale)),
                 static_cast<int>(pixelCount(canvas.height, canvas.scale)),
                 QImage::Format_ARGB32_Premultiplied);
    {
        QPainter painter(&image);
        TimelineDrawing result = drawTimeline(painter, model, canvas);
        if (drawing)
            *drawing = std::move(result);
    }
    image.setDevicePixelRatio(canvas.scale);
    return image;
}

QRect playheadPixels(double frame, double scrollFrame, double framesPerPoint, double scale, double height) {
    const auto column = static_cast<int>(std::floor((frame - scrollFrame) / (framesPerPoint / scale)));
    const int width = 2 * static_cast<int>(std::floor(1.5 * scale / 2)) + 1;
    return QRect(column - (width - 1) / 2, 0, width, static_cast<int>(std::ceil(height * scale)));
}

std::pair<int64_t, int64_t> rangeColumns(double lower, double upper, double scrollFrame,
                                         double framesPerPixel) {
    return {static_cast<int64_t>(std::floor((lower - scrollFrame) / framesPerPixel)),
            static_cast<int64_t>(std::ceil((upper - scrollFrame) / framesPerPixel))};
}

QString emptyHint() {
    return QStringLiteral("Paste audio (Ctrl+V) or drop a file here");
}

} // namespace harlune
