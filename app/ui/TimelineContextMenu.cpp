// The timeline's context menu: the window's edit commands and markers at the click.
#include "editor/EditorModel.h"
#include "ui/TimelineHitTest.h"
#include "ui/TimelineView.h"

#include <QAction>
#include <QContextMenuEvent>
#include <QMenu>
#include <array>

namespace harlune {

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
} // namespace harlune
