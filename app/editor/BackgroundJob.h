#pragma once

#include "base/ProgressToken.h"

#include <QCoreApplication>
#include <QObject>
#include <QPointer>
#include <QThreadPool>
#include <QTimer>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>

namespace harlune {

/// One kind of background job of a main-thread object (a model), at most one at a time.
///
/// Starting a job cancels its predecessor. The job waits out its debounce on the main thread (a
/// successor started meanwhile cancels it unseen), then works on the thread pool with a
/// `ProgressToken` that the work polls. Its result comes back to the main thread and is committed
/// only if the job was not cancelled, the owner still exists (it is held weakly) and the owner's
/// state version is still the one the job was started on: a result computed on an older state is
/// dropped, whatever order the jobs end in. Main thread only, apart from the work itself.
class BackgroundJob {
public:
    struct Timing {
        /// Main-thread wait before the work starts, milliseconds.
        int debounceMs = 0;
        /// Thread-pool priority; the user's own long operations run at 0.
        int priority = 0;
    };

    /// `version` reads the owner's state version on the main thread.
    BackgroundJob(QObject& owner, Timing timing, std::function<int64_t()> version);
    /// Cancels the job under way: nothing it finds is committed.
    ~BackgroundJob();
    BackgroundJob(const BackgroundJob&) = delete;
    BackgroundJob& operator=(const BackgroundJob&) = delete;

    /// A job, replacing the one under way. `ready` runs on the main thread once the debounce is
    /// over; false ends the job there. `work` runs on the pool and must not touch the owner;
    /// `commit` runs on the main thread with its result, under the conditions above.
    template <class Result>
    void start(std::function<Result(const ProgressToken&)> work, std::function<void(Result)> commit,
               std::function<bool()> ready = {});

    void cancel();
    /// A job was started and has neither committed, been dropped nor been cancelled.
    bool isRunning() const { return static_cast<bool>(token_); }

private:
    /// Main thread: whether `token`'s job may go on. `alive` is checked first: once it has
    /// expired, `job` points to nothing.
    static bool wanted(const BackgroundJob* job, const std::weak_ptr<int>& alive,
                       const std::shared_ptr<ProgressToken>& token) {
        return !alive.expired() && !token->isCancelled() && job->owner_;
    }
    /// Main thread: forgets `token`'s job, unless a newer one is under way.
    void release(const std::shared_ptr<ProgressToken>& token);

    QPointer<QObject> owner_;
    Timing timing_;
    std::function<int64_t()> version_;
    std::shared_ptr<ProgressToken> token_;
    /// Held weakly by the job's callbacks: gone with this helper.
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

/// Runs `work` on the thread pool, then `finish` on the main thread with its result or the
/// exception it threw, if `owner` still exists (it is held weakly). The road of the user's own
/// long operations, which end in any case (the busy state must go, a failure be shown) and are
/// never debounced or superseded.
template <class Result>
void runInBackground(QObject& owner, std::function<Result()> work,
                     std::function<void(std::optional<Result> result, std::exception_ptr error)> finish);

// Implementation ----------------------------------------------------------------------------------

template <class Result>
void BackgroundJob::start(std::function<Result(const ProgressToken&)> work,
                          std::function<void(Result)> commit, std::function<bool()> ready) {
    cancel();
    auto token = std::make_shared<ProgressToken>();
    token_ = token;
    const int64_t version = version_();
    const std::weak_ptr<int> alive = alive_;
    const int priority = timing_.priority;

    auto launch = [this, alive, token, version, priority, work = std::move(work), commit = std::move(commit),
                   ready = std::move(ready)]() {
        if (!wanted(this, alive, token))
            return;
        if (ready && !ready()) {
            release(token);
            return;
        }
        auto job = [this, alive, token, version, work, commit]() {
            std::optional<Result> result;
            try {
                result = work(*token);
            } catch (...) {
                // A failed measurement shows nothing: the figure stays as it was.
            }
            QCoreApplication* application = QCoreApplication::instance();
            if (!application)
                return;
            QMetaObject::invokeMethod(
                application,
                [this, alive, token, version, commit, result = std::move(result)]() mutable {
                    if (!wanted(this, alive, token))
                        return;
                    release(token);
                    if (result && version_() == version)
                        commit(std::move(*result));
                },
                Qt::QueuedConnection);
        };
        QThreadPool::globalInstance()->start(std::function<void()>(std::move(job)), priority);
    };
    if (timing_.debounceMs > 0)
        QTimer::singleShot(timing_.debounceMs, Qt::PreciseTimer, owner_.data(), std::move(launch));
    else
        launch();
}

template <class Result>
void runInBackground(QObject& owner, std::function<Result()> work,
                     std::function<void(std::optional<Result> result, std::exception_ptr error)> finish) {
    QPointer<QObject> weakOwner(&owner);
    auto job = [weakOwner, work = std::move(work), finish = std::move(finish)]() {
        std::optional<Result> result;
        std::exception_ptr error;
        try {
            result = work();
        } catch (...) {
            error = std::current_exception();
        }
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [weakOwner, finish, result = std::move(result), error]() mutable {
                if (weakOwner)
                    finish(std::move(result), error);
            },
            Qt::QueuedConnection);
    };
    QThreadPool::globalInstance()->start(std::function<void()>(std::move(job)));
}

} // namespace harlune
