// The pointer gestures of the timeline: press, drag, release, hover and autoscroll.
#include "editor/EditorModel.h"
#include "ui/TimelineHitTest.h"
#include "ui/TimelineReadout.h"
#include "ui/TimelineView.h"

#include <QMouseEvent>
#include <algorithm>
#include <cmath>

namespace harlune {
namespace {

// Window managers take Alt+press for moving windows, so Ctrl+press also picks one channel; Alt
// keeps its meaning where it arrives.
bool oneChannel(Qt::KeyboardModifiers modifiers) {
    return modifiers & (Qt::AltModifier | Qt::ControlModifier);
}

int64_t rampFrames(double sampleRate) {
    return static_cast<int64_t>(sampleRate * 0.01);
}

std::vector<std::pair<Uuid, double>> gainsOf(const GainEnvelope& envelope, const std::vector<Uuid>& ids) {
    std::vector<std::pair<Uuid, double>> gains;
    for (const Uuid& id : ids)
        for (const EnvelopePoint& point : envelope.points())
            if (point.id == id)
                gains.emplace_back(id, point.gainDB);
    return gains;
}

} // namespace

void TimelineView::mousePressEvent(QMouseEvent* event) {
    setFocus(Qt::MouseFocusReason);
    if (event->button() != Qt::LeftButton || model_.busy())
        return;
    press(event->position(), event->modifiers(), 1);
}

void TimelineView::mouseDoubleClickEvent(QMouseEvent* event) {
    setFocus(Qt::MouseFocusReason);
    if (event->button() != Qt::LeftButton || model_.busy())
        return;
    press(event->position(), event->modifiers(), 2);
}

void TimelineView::press(QPointF point, Qt::KeyboardModifiers modifiers, int clickCount) {
    inGesture_ = true;
    selectionAtPress_ = model_.selection();
    lastDragPoint_ = point;
    dragModifiers_ = modifiers;
    drag_ = drag::None{};
    const TimelineLayout areas = layout();
    if (onLaneEdge(areas, point)) {
        drag_ = drag::LaneResize{point.y(), areas.loudnessHeight};
        return;
    }
    if (areas.loudnessHeight > 0 && areas.loudness.contains(point) && model_.content().frameCount() > 0) {
        pressOnEnvelope(point, modifiers, clickCount);
        return;
    }
    if (point.y() >= rulerHeight)
        pressInLanes(point, modifiers, clickCount);
    else
        pressInRuler(point, clickCount);
}

void TimelineView::pressInLanes(QPointF point, Qt::KeyboardModifiers modifiers, int clickCount) {
    const int64_t frame = model_.snapped(frameAtX(model_, point.x()));
    const int channelCount = model_.content().channelCount();
    ChannelSet channels = allChannels(channelCount);
    if (oneChannel(modifiers))
        if (const auto channel = layout().channelAt(point.y(), channelCount))
            channels = ChannelSet{*channel};
    if (clickCount == 2) {
        model_.setSelection(regionAround(model_, frame), allChannels(channelCount));
        return;
    }
    if (modifiers & Qt::ShiftModifier) {
        int64_t anchor = model_.cursor();
        if (const auto& selection = model_.selection())
            anchor = std::abs(selection->upper - frame) <= std::abs(frame - selection->lower)
                         ? selection->lower
                         : selection->upper;
        drag_ = drag::Select{anchor, model_.activeChannels()};
        updateSelection(frame);
        return;
    }
    if (const auto anchor = selectionEdgeAnchor(model_, point)) {
        drag_ = drag::Select{*anchor, model_.activeChannels()};
        return;
    }
    drag_ = drag::Select{frame, channels};
    model_.setSelection(std::nullopt, channels);
    model_.seek(frame);
}

void TimelineView::pressInRuler(QPointF point, int clickCount) {
    if (const auto id = markerHit(model_, point)) {
        if (clickCount == 2) {
            for (const Marker& marker : model_.markers())
                if (marker.id == *id)
                    model_.seek(marker.frame);
            return;
        }
        drag_ = drag::MarkerMove{*id, model_.markers()};
        setCursor(Qt::ClosedHandCursor);
        return;
    }
    drag_ = drag::Scrub{};
    model_.selectNone();
    model_.seek(frameAtX(model_, point.x()));
}

void TimelineView::pressOnEnvelope(QPointF point, Qt::KeyboardModifiers modifiers, int clickCount) {
    if (const auto target = chipHit(cache_.lastDrawing().targetChips, point)) {
        model_.setEnvelopeTarget(*target);
        return;
    }
    const TimelineLayout areas = layout();
    const int64_t frame = frameAtX(model_, point.x());
    const std::optional<int> target = model_.envelopeTarget();
    const GainEnvelope original = model_.envelopes()[target];
    const auto found = envelopePointNear(model_, areas, point);
    if (found && ((modifiers & Qt::AltModifier) || clickCount == 2)) {
        model_.removeEnvelopePoint(*found);
        return;
    }
    const double sampleRate = model_.content().sampleRate();
    if ((modifiers & Qt::ShiftModifier) && model_.showGrid()) {
        drag_ = drag::GainBars{model_.grid().barIndex(static_cast<double>(frame), sampleRate), point.y(),
                               original};
        return;
    }
    EnvelopeSet envelopes = model_.envelopes();
    GainEnvelope& edited = envelopes.edit(target);
    if (modifiers & Qt::ShiftModifier) {
        const FrameRange span = model_.selection() && model_.selection()->contains(frame)
                                    ? *model_.selection()
                                    : regionAround(model_, frame);
        const std::vector<Uuid> ids = edited.prepareSpan(span, rampFrames(sampleRate));
        drag_ = drag::GainSection{gainsOf(edited, ids), point.y(), span, original, edited};
        model_.setEnvelopes(std::move(envelopes));
        return;
    }
    if (found) {
        drag_ = drag::GainPoint{*found, original};
        return;
    }
    // A click on the curve keeps its gain, so that it does not bend.
    const double gain = nearEnvelopeCurve(model_, areas, point)
                            ? original.gainDB(static_cast<double>(frame))
                            : areas.envelopeDB(point.y(), model_.envelopeRangeDB());
    const Uuid id = edited.insert(frame, gain);
    model_.setEnvelopes(std::move(envelopes));
    drag_ = drag::GainPoint{id, original};
}

void TimelineView::mouseMoveEvent(QMouseEvent* event) {
    const QPointF point = event->position();
    hoverLocation_ = point;
    if (!inGesture_) {
        updatePointer(point);
        return;
    }
    lastDragPoint_ = point;
    dragModifiers_ = event->modifiers();
    applyDrag(point);
    if (Autoscroll::overshoot(point.x(), width()) != 0)
        autoscroll_.start();
    else
        autoscroll_.stop();
}

void TimelineView::autoscrollTick() {
    const double overshoot = Autoscroll::overshoot(lastDragPoint_.x(), width());
    if (overshoot == 0 || !inGesture_) {
        autoscroll_.stop();
        return;
    }
    model_.scroll(Autoscroll::stepFor(overshoot));
    applyDrag(QPointF(std::clamp(lastDragPoint_.x(), 0.0, static_cast<double>(width())), lastDragPoint_.y()));
}

void TimelineView::applyDrag(QPointF point) {
    std::visit(
        [&](const auto& current) {
            using Case = std::decay_t<decltype(current)>;
            if constexpr (std::is_same_v<Case, drag::Select>) {
                updateSelection(model_.snapped(frameAtX(model_, point.x())));
            } else if constexpr (std::is_same_v<Case, drag::MarkerMove>) {
                model_.moveMarker(current.id, model_.snapped(frameAtX(model_, point.x())), false);
            } else if constexpr (std::is_same_v<Case, drag::GainPoint>) {
                moveGainPoint(current, point);
            } else if constexpr (std::is_same_v<Case, drag::GainSection>) {
                moveGainSection(current, point);
            } else if constexpr (std::is_same_v<Case, drag::LaneResize>) {
                model_.setLoudnessLaneHeight(
                    std::clamp(current.startHeight + (current.startY - point.y()), 70.0, 600.0));
            } else if constexpr (std::is_same_v<Case, drag::GainBars>) {
                moveGainBars(current, point);
            } else if constexpr (std::is_same_v<Case, drag::Scrub>) {
                model_.seek(frameAtX(model_, point.x()));
            }
        },
        drag_);
}

void TimelineView::updateSelection(int64_t frame) {
    const auto& select = std::get<drag::Select>(drag_);
    const FrameRange range{std::min(select.anchor, frame), std::max(select.anchor, frame)};
    model_.setSelection(range.length() < 1 ? std::nullopt : std::optional<FrameRange>(range),
                        select.channels);
}

void TimelineView::moveGainPoint(const drag::GainPoint& point, QPointF at) {
    const TimelineLayout areas = layout();
    const double range = model_.envelopeRangeDB();
    double gain = areas.envelopeDB(at.y(), range);
    // The 0 dB line is magnetic.
    if (std::abs(gain) < range * 0.03)
        gain = 0;
    const int64_t frameCount = model_.content().frameCount();
    int64_t frame = frameAtX(model_, at.x());
    if (model_.showGrid() && model_.snapToGrid() && !(dragModifiers_ & Qt::ControlModifier))
        frame = sixteenthSnapped(model_.grid(), model_.content().sampleRate(), frame, frameCount);
    EnvelopeSet envelopes = model_.envelopes();
    GainEnvelope& edited = envelopes.edit(model_.envelopeTarget());
    edited.move(point.id, frame, gain);
    dragReadout_.reset();
    for (const EnvelopePoint& moved : edited.points())
        if (moved.id == point.id)
            dragReadout_ = Readout{
                pointReadout(moved.gainDB, moved.frame, model_.timeFormat(), model_.content().sampleRate()),
                at};
    model_.setEnvelopes(std::move(envelopes));
    update();
}

void TimelineView::moveGainSection(const drag::GainSection& section, QPointF at) {
    const double band = layout().envelopeBand().height();
    const double delta = (section.startY - at.y()) / (band * 0.5) * model_.envelopeRangeDB();
    GainEnvelope edited = section.prepared;
    for (const auto& [id, gain] : section.startGains)
        edited.move(id, std::nullopt, gain + delta);
    EnvelopeSet envelopes = model_.envelopes();
    envelopes.set(model_.envelopeTarget(), std::move(edited));
    dragReadout_ = Readout{sectionReadout(delta, section.span.length(), model_.content().sampleRate()), at};
    model_.setEnvelopes(std::move(envelopes));
    update();
}

void TimelineView::moveGainBars(const drag::GainBars& bars, QPointF at) {
    const double sampleRate = model_.content().sampleRate();
    const TempoGrid& grid = model_.grid();
    const int64_t bar = grid.barIndex(static_cast<double>(frameAtX(model_, at.x())), sampleRate);
    const int64_t first = std::min(bars.anchorBar, bar);
    const int64_t last = std::max(bars.anchorBar, bar);
    const FrameRange span = grid.barsRange(first, last, sampleRate, model_.content().frameCount());
    const double band = layout().envelopeBand().height();
    const double delta = (bars.startY - at.y()) / (band * 0.5) * model_.envelopeRangeDB();
    GainEnvelope edited = bars.original;
    const std::vector<Uuid> ids = edited.prepareSpan(span, rampFrames(sampleRate));
    for (const auto& [id, gain] : gainsOf(edited, ids))
        edited.move(id, std::nullopt, gain + delta);
    EnvelopeSet envelopes = model_.envelopes();
    envelopes.set(model_.envelopeTarget(), std::move(edited));
    barSpan_ = std::pair{first, last};
    dragReadout_ = Readout{barsReadout(delta, first, last), at};
    model_.setEnvelopes(std::move(envelopes));
    update();
}

void TimelineView::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton || !inGesture_)
        return;
    release();
    updatePointer(event->position());
}

void TimelineView::release() {
    autoscroll_.stop();
    std::visit(
        [&](const auto& current) {
            using Case = std::decay_t<decltype(current)>;
            if constexpr (std::is_same_v<Case, drag::MarkerMove>) {
                model_.endMarkerDrag(current.original);
                setCursor(Qt::OpenHandCursor);
            } else if constexpr (std::is_same_v<Case, drag::GainPoint>) {
                model_.endEnvelopeEdit(current.original, QStringLiteral("Adjust Gain Point"));
            } else if constexpr (std::is_same_v<Case, drag::GainSection>) {
                // A Shift+click that raised nothing leaves no edge points behind and no step.
                if (model_.envelopes()[model_.envelopeTarget()] == current.prepared) {
                    EnvelopeSet envelopes = model_.envelopes();
                    envelopes.set(model_.envelopeTarget(), current.original);
                    model_.setEnvelopes(std::move(envelopes));
                }
                model_.endEnvelopeEdit(current.original, QStringLiteral("Adjust Gain Section"));
            } else if constexpr (std::is_same_v<Case, drag::GainBars>) {
                model_.endEnvelopeEdit(current.original, QStringLiteral("Adjust Bars"));
            }
        },
        drag_);
    barSpan_.reset();
    drag_ = drag::None{};
    dragReadout_.reset();
    inGesture_ = false;
    update();
    Q_EMIT gestureEnded(model_.selection() != selectionAtPress_);
}

void TimelineView::updatePointer(QPointF point) {
    const TimelineLayout areas = layout();
    std::optional<Uuid> hovered;
    if (areas.loudnessHeight > 0 && areas.loudness.contains(point))
        hovered = envelopePointNear(model_, areas, point);
    if (hovered != hoveredPoint_) {
        hoveredPoint_ = hovered;
        update();
    }
    const Qt::CursorShape shape = pointerShape(model_, areas, point);
    if (cursor().shape() != shape)
        setCursor(shape);
}

void TimelineView::leaveEvent(QEvent* event) {
    hoverLocation_.reset();
    if (hoveredPoint_) {
        hoveredPoint_.reset();
        update();
    }
    QWidget::leaveEvent(event);
}

} // namespace harlune
