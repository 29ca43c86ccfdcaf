#include "editor/QtRackScheduler.h"

#include <QCoreApplication>
#include <QThreadPool>
#include <QTimer>

namespace harlune {

QtRackScheduler::QtRackScheduler() : context_(std::make_unique<QObject>()) {}

QtRackScheduler::~QtRackScheduler() = default;

RackScheduler::TaskID QtRackScheduler::schedule(std::chrono::milliseconds delay, std::function<void()> task) {
    const TaskID id = nextID_++;
    pending_.emplace(id, std::move(task));
    // A cancelled task leaves its timer behind; it finds nothing to run when it fires.
    QTimer::singleShot(delay, Qt::PreciseTimer, context_.get(), [this, id] {
        const auto found = pending_.find(id);
        if (found == pending_.end())
            return;
        std::function<void()> due = std::move(found->second);
        pending_.erase(found);
        due();
    });
    return id;
}

void QtRackScheduler::cancel(TaskID task) {
    pending_.erase(task);
}

void QtRackScheduler::runInBackground(std::function<std::function<void()>()> work) {
    std::weak_ptr<int> alive = alive_;
    QThreadPool::globalInstance()->start([alive, work = std::move(work)] {
        std::function<void()> continuation = work();
        QCoreApplication* application = QCoreApplication::instance();
        if (!application || !continuation)
            return;
        QMetaObject::invokeMethod(
            application,
            [alive, continuation = std::move(continuation)] {
                if (!alive.expired())
                    continuation();
            },
            Qt::QueuedConnection);
    });
}

} // namespace harlune
