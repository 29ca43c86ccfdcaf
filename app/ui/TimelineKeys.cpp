// Keys of the timeline. They match QKeyEvent::key(), never the text, so that layouts and
// modifiers do not change their meaning.
#include "editor/EditorModel.h"
#include "ui/TimelineView.h"

#include <QKeyEvent>
#include <QNativeGestureEvent>
#include <algorithm>

namespace harlune {
namespace {

// Keys the window's shortcuts would take first: the timeline claims them while it has focus and
// nothing is busy (Escape then belongs to the busy panel's Cancel).
bool claimsShortcut(const QKeyEvent& event) {
    const int key = event.key();
    return key == Qt::Key_Escape || key == Qt::Key_Backspace || key == Qt::Key_Return ||
           key == Qt::Key_Enter || (key == Qt::Key_Space && (event.modifiers() & Qt::ShiftModifier));
}

} // namespace

bool TimelineView::event(QEvent* event) {
    if (event->type() == QEvent::ShortcutOverride) {
        auto* key = static_cast<QKeyEvent*>(event);
        if (!model_.busy() && claimsShortcut(*key)) {
            key->accept();
            return true;
        }
    }
    if (event->type() == QEvent::NativeGesture) {
        pinch(*static_cast<QNativeGestureEvent*>(event));
        return true;
    }
    return QWidget::event(event);
}

void TimelineView::keyPressEvent(QKeyEvent* event) {
    if (model_.busy()) {
        setFocus(Qt::OtherFocusReason);
        event->accept();
        return;
    }
    if (!handleKey(*event))
        QWidget::keyPressEvent(event);
}

bool TimelineView::handleKey(const QKeyEvent& event) {
    const Qt::KeyboardModifiers modifiers = event.modifiers();
    switch (event.key()) {
    case Qt::Key_Space:
        if (modifiers & Qt::ShiftModifier)
            model_.play(true);
        else
            model_.togglePlayback();
        return true;
    case Qt::Key_Return:
    case Qt::Key_Enter:
    case Qt::Key_Home:
        model_.goToStart();
        return true;
    case Qt::Key_End:
        model_.goToEnd();
        return true;
    case Qt::Key_Escape:
        if (model_.isPlaying())
            model_.stop(false);
        else
            model_.selectNone();
        return true;
    case Qt::Key_Backspace:
    case Qt::Key_Delete:
        model_.deleteNamed(QStringLiteral("Delete"));
        return true;
    case Qt::Key_Left:
    case Qt::Key_Right: {
        const double frames = (modifiers & Qt::AltModifier)
                                  ? model_.framesPerPoint()
                                  : model_.viewWidth() * model_.framesPerPoint() / 50;
        const int64_t step = std::max<int64_t>(1, static_cast<int64_t>(frames));
        moveCursor(event.key() == Qt::Key_Left ? -step : step, modifiers & Qt::ShiftModifier);
        return true;
    }
    case Qt::Key_M:
        if (modifiers & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier))
            return false;
        model_.addMarker();
        return true;
    default:
        return false;
    }
}

void TimelineView::moveCursor(int64_t delta, bool extend) {
    const auto& selection = model_.selection();
    const int64_t frameCount = model_.content().frameCount();
    if (!extend) {
        int64_t base = model_.cursor();
        if (selection)
            base = delta > 0 ? selection->upper : selection->lower;
        model_.setSelection(std::nullopt, std::nullopt);
        model_.seek(base + delta);
        return;
    }
    // The cursor stays at the fixed end, so the same edge keeps moving as the range turns over.
    const int64_t fixed = model_.cursor();
    int64_t moving = fixed;
    if (selection)
        moving = selection->lower == fixed ? selection->upper : selection->lower;
    moving = std::clamp(moving + delta, int64_t{0}, frameCount);
    const FrameRange range{std::min(fixed, moving), std::max(fixed, moving)};
    model_.setSelection(range.isEmpty() ? std::nullopt : std::optional<FrameRange>(range), std::nullopt);
    model_.setCursor(fixed);
    model_.ensureVisible(moving);
}
} // namespace harlune
