#pragma once

#include "engine/RackScheduler.h"

#include <QObject>
#include <map>
#include <memory>

namespace harlune {

/// The effects rack's main loop on Qt: delayed tasks are single-shot timers on the thread that
/// made the scheduler (the model's), background jobs run on the global thread pool and post their
/// continuation back to the application's main thread. Tasks still pending when the scheduler
/// goes are dropped, and so are continuations that arrive after it.
class QtRackScheduler final : public RackScheduler {
public:
    QtRackScheduler();
    ~QtRackScheduler() override;
    QtRackScheduler(const QtRackScheduler&) = delete;
    QtRackScheduler& operator=(const QtRackScheduler&) = delete;

    Clock::time_point now() const override { return Clock::now(); }
    TaskID schedule(std::chrono::milliseconds delay, std::function<void()> task) override;
    void cancel(TaskID task) override;
    void runInBackground(std::function<std::function<void()>()> work) override;

private:
    /// Owns the timers, so that they die with the scheduler.
    std::unique_ptr<QObject> context_;
    std::map<TaskID, std::function<void()>> pending_;
    TaskID nextID_ = 1;
    /// Held weakly by continuations on their way back from the pool.
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

} // namespace harlune
