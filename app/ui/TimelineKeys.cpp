// Keys of the timeline, its context menu and file drops. Keys match QKeyEvent::key(), never the
// text, so that layouts and modifiers do not change their meaning.
#include "editor/EditorModel.h"
#include "ui/TimelineHitTest.h"
#include "ui/TimelineView.h"

#include <QAction>
#include <QContextMenuEvent>
#include <QDropEvent>
#include <QKeyEvent>
#include <QMenu>
#include <QMimeData>
#include <QUrl>
#include <algorithm>
#include <array>
#include <cmath>

namespace harlune {
namespace {

QStringList localFiles(const QMimeData* data) {
    QStringList paths;
    if (data && data->hasUrls())
        for (const QUrl& url : data->urls())
            if (url.isLocalFile())
                paths << url.toLocalFile();
    return paths;
}

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

QMenu* TimelineView::contextMenuAt(QPointF point) {
    auto* menu = new QMenu(this);
    const bool hasSelection = model_.selection().has_value();
    struct Entry {
        const char* id;
        const char* title;
        bool needsSelection;
    };
    static constexpr std::array entries{
        Entry{"cut", "Cut", true},
        Entry{"copy", "Copy", true},
        Entry{"paste", "Paste", false},
        Entry{"pasteMix", "Paste Mix", false},
        Entry{"delete", "Delete", true},
        Entry{"trimToSelection", "Trim to Selection", true},
        Entry{"silenceSelection", "Silence", true},
        Entry{"fadeIn", "Fade In", true},
        Entry{"fadeOut", "Fade Out", true},
        Entry{nullptr, nullptr, false},
        Entry{"zoomToSelection", "Zoom to Selection", true},
        Entry{"zoomToFit", "Zoom to Fit", false},
    };
    for (const Entry& entry : entries) {
        if (!entry.id) {
            menu->addSeparator();
            continue;
        }
        // The window's own action: its title, shortcut, enabled state and handler.
        if (QAction* shared = lookup_ ? lookup_(entry.id) : nullptr) {
            menu->addAction(shared);
            continue;
        }
        QAction* own = menu->addAction(tr(entry.title));
        own->setEnabled((!entry.needsSelection || hasSelection) && !model_.busy());
        own->setObjectName(QString::fromLatin1(entry.id));
        connect(own, &QAction::triggered, this, [this, id = std::string_view(entry.id)] { runCommand(id); });
    }
    menu->addSeparator();
    const int64_t frame = frameAtX(model_, point.x());
    QAction* addHere = menu->addAction(tr("Add Marker Here"));
    connect(addHere, &QAction::triggered, this, [this, frame] { model_.addMarker(frame); });
    if (const auto id = markerHit(model_, point)) {
        for (const Marker& marker : model_.markers())
            if (marker.id == *id) {
                QAction* remove = menu->addAction(tr("Remove Marker “%1”").arg(marker.name));
                connect(remove, &QAction::triggered, this, [this, id = *id] { model_.removeMarker(id); });
            }
    }
    return menu;
}

void TimelineView::runCommand(std::string_view id) {
    if (id == "cut") {
        model_.copy();
        model_.deleteNamed(QStringLiteral("Cut"));
    } else if (id == "copy") {
        model_.copy();
    } else if (id == "paste") {
        model_.paste();
    } else if (id == "pasteMix") {
        model_.pasteMix();
    } else if (id == "delete") {
        model_.deleteNamed(QStringLiteral("Delete"));
    } else if (id == "trimToSelection") {
        model_.trimToSelection();
    } else if (id == "silenceSelection") {
        model_.silence();
    } else if (id == "fadeIn" || id == "fadeOut") {
        model_.fade(id == "fadeIn" ? FadeDirection::fadeIn : FadeDirection::fadeOut, FadeShape::sCurve);
    } else if (id == "zoomToSelection") {
        model_.zoomToSelection();
    } else if (id == "zoomToFit") {
        model_.zoomToFit();
    }
}

void TimelineView::contextMenuEvent(QContextMenuEvent* event) {
    // On X11 this comes at the press; selection and cursor stay as they are.
    setFocus(Qt::PopupFocusReason);
    if (model_.busy())
        return;
    QMenu* menu = contextMenuAt(event->pos());
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->popup(event->globalPos());
}

void TimelineView::dragEnterEvent(QDragEnterEvent* event) {
    if (localFiles(event->mimeData()).isEmpty()) {
        event->ignore();
        return;
    }
    event->setDropAction(Qt::CopyAction);
    event->accept();
}

void TimelineView::dragMoveEvent(QDragMoveEvent* event) {
    if (localFiles(event->mimeData()).isEmpty()) {
        event->ignore();
        return;
    }
    event->setDropAction(Qt::CopyAction);
    event->accept();
}

void TimelineView::dropEvent(QDropEvent* event) {
    const QStringList paths = localFiles(event->mimeData());
    if (paths.isEmpty()) {
        event->ignore();
        return;
    }
    event->setDropAction(Qt::CopyAction);
    event->accept();
    Q_EMIT filesDropped(paths);
}

} // namespace harlune
