// Wheel and pinch on the timeline: scrolling, zooming about the pointer and the envelope's range.
#include "editor/EditorModel.h"
#include "ui/TimelineHitTest.h"
#include "ui/TimelineView.h"

#include <QNativeGestureEvent>
#include <QWheelEvent>
#include <array>
#include <cmath>

namespace harlune {
namespace {

constexpr std::array envelopeRanges{3.0, 6.0, 12.0, 24.0, 48.0};
// A wheel notch in angle units; line-based deltas count in notches.
constexpr double notch = 120;

int64_t anchorAt(const EditorModel& model, double x) {
    return static_cast<int64_t>(std::llround(model.scrollFrame() + x * model.framesPerPoint()));
}

} // namespace

void TimelineView::wheelEvent(QWheelEvent* event) {
    const Qt::KeyboardModifiers modifiers = event->modifiers();
    const bool alt = modifiers & Qt::AltModifier;
    const bool ctrl = modifiers & Qt::ControlModifier;
    // A precise device (touchpad) gives points; otherwise the delta counts wheel lines.
    const bool precise = !event->pixelDelta().isNull();
    const QPointF delta = precise ? QPointF(event->pixelDelta()) : QPointF(event->angleDelta()) / notch;
    // X11 hands the wheel's vertical delta over as horizontal while Alt is held.
    const double vertical = alt && delta.x() != 0 ? delta.x() : delta.y();
    const QPointF point = event->position();
    event->accept();

    const TimelineLayout areas = layout();
    if (alt && areas.loudnessHeight > 0 && areas.loudness.contains(point)) {
        if (precise) {
            if (std::abs(vertical) > 4)
                stepEnvelopeRange(vertical > 0);
            return;
        }
        rangeWheel_ += vertical * notch;
        for (; rangeWheel_ >= notch; rangeWheel_ -= notch)
            stepEnvelopeRange(true);
        for (; rangeWheel_ <= -notch; rangeWheel_ += notch)
            stepEnvelopeRange(false);
        return;
    }
    if (!alt && !ctrl) {
        double amount = std::abs(delta.x()) >= std::abs(delta.y()) ? delta.x() : delta.y();
        if (!precise)
            amount *= 12;
        model_.scroll(-amount);
        return;
    }
    const double amount = precise ? vertical : vertical * 8;
    model_.zoom(std::exp(amount * -0.01), anchorAt(model_, point.x()));
}

void TimelineView::stepEnvelopeRange(bool smaller) {
    const auto found = std::find(envelopeRanges.begin(), envelopeRanges.end(), model_.envelopeRangeDB());
    const auto index = found == envelopeRanges.end() ? 2 : found - envelopeRanges.begin();
    const auto next = std::clamp<std::ptrdiff_t>(index + (smaller ? -1 : 1), 0, envelopeRanges.size() - 1);
    model_.setEnvelopeRangeDB(envelopeRanges[static_cast<size_t>(next)]);
}

void TimelineView::pinch(const QNativeGestureEvent& event) {
    const double x = event.position().x();
    switch (event.gestureType()) {
    case Qt::ZoomNativeGesture:
        // A relative magnification per event; positive zooms in.
        if (1 + event.value() > 0)
            model_.zoom(1 / (1 + event.value()), anchorAt(model_, x));
        break;
    case Qt::SmartZoomNativeGesture:
        if (model_.selection())
            model_.zoomToSelection();
        else
            model_.zoomToFit();
        break;
    default:
        break;
    }
}

} // namespace harlune
