#pragma once

#include "engine/MainThreadQueue.h"
#include "engine/RackScheduler.h"

#include <memory>

namespace harlune {

/// The rack's main loop for programs that run a `MainThreadQueue` (the command line): real time,
/// one timer thread that posts due tasks to the queue, and one worker thread for background jobs
/// whose results are posted the same way. Tasks run when the owner pumps the queue; a task
/// cancelled before that does not run, and neither does anything posted after the scheduler is
/// gone. The queue must outlive the scheduler.
class QueueRackScheduler final : public RackScheduler {
public:
    explicit QueueRackScheduler(MainThreadQueue& queue);
    /// Joins both threads; a background job under way is waited for.
    ~QueueRackScheduler() override;
    QueueRackScheduler(const QueueRackScheduler&) = delete;
    QueueRackScheduler& operator=(const QueueRackScheduler&) = delete;

    Clock::time_point now() const override { return Clock::now(); }
    TaskID schedule(std::chrono::milliseconds delay, std::function<void()> task) override;
    void cancel(TaskID task) override;
    void runInBackground(std::function<std::function<void()>()> work) override;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

} // namespace harlune
