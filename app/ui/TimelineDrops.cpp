// Files dropped on the timeline: each is handed on to open in a window of its own.
#include "ui/TimelineView.h"

#include <QDropEvent>
#include <QMimeData>
#include <QUrl>

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

} // namespace

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
