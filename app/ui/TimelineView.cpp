#include "ui/TimelineView.h"

#include "editor/EditorModel.h"
#include "ui/Theme.h"
#include "ui/TimelineGeometry.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QEvent>
#include <QFontMetricsF>
#include <QPaintEvent>
#include <QPainter>
#include <QScreen>
#include <algorithm>
#include <cmath>

namespace harlune {
namespace {

class TimelineAccessible : public QAccessibleWidget {
public:
    explicit TimelineAccessible(TimelineView* view) : QAccessibleWidget(view, QAccessible::Graphic) {}
    QString text(QAccessible::Text kind) const override {
        if (kind == QAccessible::Value)
            return static_cast<TimelineView*>(widget())->accessibleValue();
        return QAccessibleWidget::text(kind);
    }
};

QAccessibleInterface* timelineAccessible(const QString& className, QObject* object) {
    if (className == QLatin1String("harlune::TimelineView") && object && object->isWidgetType())
        return new TimelineAccessible(static_cast<TimelineView*>(object));
    return nullptr;
}

} // namespace

TimelineView::TimelineView(EditorModel& model, QWidget* parent)
    : QWidget(parent), model_(model), autoscroll_([this] { autoscrollTick(); }) {
    static const bool factoryInstalled = [] {
        QAccessible::installFactory(timelineAccessible);
        return true;
    }();
    (void)factoryInstalled;
    setAccessibleName(QStringLiteral("Waveform"));
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMinimumSize(200, 120);
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setAcceptDrops(true);
    setCursor(Qt::ArrowCursor);
    playheadTimer_.setTimerType(Qt::PreciseTimer);
    connect(&playheadTimer_, &QTimer::timeout, this, &TimelineView::updatePlayhead);
    lastCursor_ = model_.cursor();
    lastSelection_ = model_.selection();
    watch();
    playbackChanged();
}

void TimelineView::watch() {
    const auto on = [this](auto signal, TimelineField field) {
        connect(&model_, signal, this, [this, field] { fieldChanged(field); });
    };
    on(&EditorModel::contentChanged, TimelineField::content);
    on(&EditorModel::contentVersionChanged, TimelineField::content);
    on(&EditorModel::fileInfoChanged, TimelineField::fileInfo);
    on(&EditorModel::envelopesChanged, TimelineField::envelopes);
    on(&EditorModel::envelopeTargetChanged, TimelineField::envelopeTarget);
    connect(&model_, &EditorModel::selectionChanged, this, &TimelineView::selectionChanged);
    on(&EditorModel::activeChannelsChanged, TimelineField::activeChannels);
    on(&EditorModel::framesPerPointChanged, TimelineField::framesPerPoint);
    on(&EditorModel::scrollFrameChanged, TimelineField::scrollFrame);
    on(&EditorModel::viewWidthChanged, TimelineField::viewWidth);
    on(&EditorModel::amplitudeZoomChanged, TimelineField::amplitudeZoom);
    on(&EditorModel::showLoudnessLaneChanged, TimelineField::showLoudnessLane);
    on(&EditorModel::loudnessLaneHeightChanged, TimelineField::loudnessLaneHeight);
    on(&EditorModel::envelopeRangeDBChanged, TimelineField::envelopeRangeDB);
    on(&EditorModel::timeFormatChanged, TimelineField::timeFormat);
    on(&EditorModel::gridChanged, TimelineField::grid);
    on(&EditorModel::showGridChanged, TimelineField::showGrid);
    on(&EditorModel::markersChanged, TimelineField::markers);
    on(&EditorModel::contentLoudnessChanged, TimelineField::contentLoudness);
    on(&EditorModel::isAnalyzingChanged, TimelineField::isAnalyzing);
    on(&EditorModel::targetLUFSChanged, TimelineField::targetLUFS);
    connect(&model_, &EditorModel::cursorChanged, this, &TimelineView::cursorChanged);
    connect(&model_, &EditorModel::playheadChanged, this, &TimelineView::updatePlayhead);
    connect(&model_, &EditorModel::recordHeadChanged, this, &TimelineView::updatePlayhead);
    connect(&model_, &EditorModel::isPlayingChanged, this, &TimelineView::playbackChanged);
}

void TimelineView::fieldChanged(TimelineField field) {
    if (cache_.fieldChanged(field))
        update();
    if (field == TimelineField::scrollFrame || field == TimelineField::framesPerPoint)
        updatePlayhead();
}

void TimelineView::cursorChanged() {
    // The cursor is part of the static drawing, but a move only redraws the strips it left and
    // entered.
    const auto strip = [this](int64_t frame) {
        const double x = lineX(static_cast<double>(frame), model_.scrollFrame(), model_.framesPerPoint());
        return QRectF(x - 2, 0, 4, height());
    };
    // The line shows only without a selection, whatever the last drawing read.
    if (cache_.lastDrawing().read.contains(TimelineField::cursor) || !model_.selection()) {
        cache_.invalidateStrip(strip(lastCursor_));
        cache_.invalidateStrip(strip(model_.cursor()));
        update(strip(lastCursor_).toAlignedRect());
        update(strip(model_.cursor()).toAlignedRect());
    }
    lastCursor_ = model_.cursor();
}

void TimelineView::selectionChanged() {
    // A drag changes the selection at every move: only the strips its edges swept are drawn
    // again, the stretch between an old and a new edge. A selection that comes or goes also
    // takes or leaves the cursor line.
    const std::optional<FrameRange> now = model_.selection();
    const std::optional<FrameRange> before = lastSelection_;
    lastSelection_ = now;
    if (!cache_.lastDrawing().read.contains(TimelineField::selection))
        return;
    const auto strip = [this](int64_t from, int64_t to) {
        const double a =
            frameToX(static_cast<double>(std::min(from, to)), model_.scrollFrame(), model_.framesPerPoint());
        const double b =
            frameToX(static_cast<double>(std::max(from, to)), model_.scrollFrame(), model_.framesPerPoint());
        const double left = std::max(a - 2, -2.0);
        const double right = std::min(b + 3, width() + 2.0);
        if (right <= left)
            return;
        const QRectF points(left, 0, right - left, height());
        cache_.invalidateStrip(points);
        update(points.toAlignedRect());
    };
    if (now && before) {
        if (before->lower != now->lower)
            strip(before->lower, now->lower);
        if (before->upper != now->upper)
            strip(before->upper, now->upper);
    } else if (now || before) {
        const FrameRange shown = now ? *now : *before;
        strip(shown.lower, shown.upper);
        strip(model_.cursor(), model_.cursor());
        strip(lastCursor_, lastCursor_);
    }
}

void TimelineView::playbackChanged() {
    if (model_.isPlaying()) {
        const QScreen* shown = screen();
        const double rate = shown ? std::max(shown->refreshRate(), 30.0) : 60.0;
        playheadTimer_.start(static_cast<int>(std::lround(1000 / rate)));
        lastAudible_ = -1;
    } else {
        playheadTimer_.stop();
    }
    updatePlayhead();
}

void TimelineView::updatePlayhead() {
    std::optional<double> frame;
    if (const auto head = model_.recordHead()) {
        frame = static_cast<double>(*head);
    } else if (model_.isPlaying()) {
        // The sound server moves in whole buffers; between steps the position is carried on by
        // the clock, at most a tenth of a second, so that the line glides.
        const int64_t audible = model_.player().audiblePosition();
        if (audible != lastAudible_) {
            lastAudible_ = audible;
            sinceAudibleStep_.start();
            frame = static_cast<double>(audible);
        } else {
            const double elapsed =
                std::min(static_cast<double>(sinceAudibleStep_.nsecsElapsed()) * 1e-9, 0.1);
            frame = static_cast<double>(audible) + elapsed * model_.content().sampleRate();
        }
    }
    if (frame) {
        const double x = frameToX(*frame, model_.scrollFrame(), model_.framesPerPoint());
        if (x < 0 || x > width())
            frame.reset();
    }
    if (frame == playheadFrame_)
        return;
    if (playheadFrame_)
        update(playheadStrip(*playheadFrame_));
    playheadFrame_ = frame;
    if (playheadFrame_)
        update(playheadStrip(*playheadFrame_));
}

QRect TimelineView::playheadStrip(double frame) const {
    // The line's device pixels plus one on either side, so fractional ratios leave no trail.
    const double scale = devicePixelRatioF();
    const QRect pixels =
        playheadPixels(frame, model_.scrollFrame(), model_.framesPerPoint(), scale, height());
    const int left = static_cast<int>(std::floor((pixels.left() - 1) / scale));
    const int right = static_cast<int>(std::ceil((pixels.right() + 2) / scale));
    return QRect(left, 0, right - left, height());
}

TimelineCanvas TimelineView::canvas() const {
    TimelineCanvas result;
    result.width = width();
    result.height = height();
    result.scale = devicePixelRatioF();
    result.dark = Theme::isDark(palette());
    if (hoveredPoint_) {
        const auto& points = model_.envelopes()[model_.envelopeTarget()].points();
        for (size_t i = 0; i < points.size(); ++i)
            if (points[i].id == *hoveredPoint_)
                result.hoveredPoint = static_cast<int>(i);
    }
    return result;
}

TimelineLayout TimelineView::layout() const {
    return timelineLayout(width(), height(), model_.showLoudnessLane(), model_.loudnessLaneHeight());
}

void TimelineView::paintGestureOverlay(QPainter& painter) {
    const bool dark = Theme::isDark(palette());
    if (barSpan_ && model_.content().frameCount() > 0) {
        const TimelineLayout areas = layout();
        const double sampleRate = model_.content().sampleRate();
        const FrameRange bars = model_.grid().barsRange(barSpan_->first, barSpan_->second, sampleRate,
                                                        model_.content().frameCount());
        const double left =
            frameToX(static_cast<double>(bars.lower), model_.scrollFrame(), model_.framesPerPoint());
        const double right =
            frameToX(static_cast<double>(bars.upper), model_.scrollFrame(), model_.framesPerPoint());
        QColor fill = Theme::gridBar.of(dark);
        fill.setAlphaF(0.15f);
        painter.fillRect(QRectF(left, areas.loudness.top(), right - left, areas.loudness.height()), fill);
    }
    if (dragReadout_) {
        const QFontMetricsF metrics(painter.font());
        QRectF box(dragReadout_->at + QPointF(12, -22), metrics.size(0, dragReadout_->text) + QSizeF(10, 4));
        box.moveLeft(std::clamp(box.left(), 0.0, std::max(0.0, width() - box.width())));
        box.moveTop(std::clamp(box.top(), 0.0, std::max(0.0, height() - box.height())));
        painter.setPen(Qt::NoPen);
        painter.setBrush(Theme::laneBackground.of(dark));
        painter.drawRoundedRect(box, 4, 4);
        painter.setPen(Theme::envelope.of(dark));
        painter.drawText(box, Qt::AlignCenter, dragReadout_->text);
    }
}

void TimelineView::paintEvent(QPaintEvent* event) {
    const TimelineCanvas current = canvas();
    const QImage& image =
        cache_.image(current, [&](QPainter& painter) { return drawTimeline(painter, model_, current); });
    QPainter painter(this);
    painter.setClipRegion(event->region());
    painter.drawImage(QPointF(0, 0), image);
    if (playheadFrame_) {
        // In device pixels, untransformed, so the line lands on its frame's column.
        const QRect pixels = playheadPixels(*playheadFrame_, model_.scrollFrame(), model_.framesPerPoint(),
                                            current.scale, current.height);
        painter.save();
        painter.scale(1 / current.scale, 1 / current.scale);
        painter.fillRect(pixels, Theme::playhead.of(current.dark));
        painter.restore();
    }
    if (dragReadout_ || barSpan_)
        paintGestureOverlay(painter);
}

void TimelineView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    const double newWidth = width();
    if (newWidth > 0 && newWidth != model_.viewWidth()) {
        const bool firstLayout = model_.viewWidth() == 800 && model_.scrollFrame() == 0;
        model_.setViewWidth(newWidth);
        if (firstLayout)
            model_.zoomToFit();
        else
            model_.clampScroll();
    }
    cache_.invalidate();
    updatePlayhead();
}

void TimelineView::changeEvent(QEvent* event) {
    if (event->type() == QEvent::PaletteChange) {
        cache_.invalidate();
        update();
    }
    QWidget::changeEvent(event);
}

QString TimelineView::accessibleValue() const {
    const AudioContent& content = model_.content();
    if (content.frameCount() == 0)
        return emptyHint();
    QString value = QStringLiteral("Length %1")
                        .arg(string(model_.timeFormat(), content.frameCount(), content.sampleRate()));
    if (const auto& selection = model_.selection())
        value += QStringLiteral(", selection %1 to %2")
                     .arg(string(model_.timeFormat(), selection->lower, content.sampleRate()),
                          string(model_.timeFormat(), selection->upper, content.sampleRate()));
    else
        value += QStringLiteral(", cursor at %1")
                     .arg(string(model_.timeFormat(), model_.cursor(), content.sampleRate()));
    return value;
}

} // namespace harlune
