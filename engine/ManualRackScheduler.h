#pragma once

#include "engine/RackScheduler.h"

#include <deque>
#include <map>
#include <utility>

namespace harlune {

/// A scheduler with a virtual clock that only moves when told to, for tests: `advance` runs the
/// tasks that fall due on the way in time order, and background jobs wait until
/// `runBackgroundJobs` runs them (work and result alike, on the calling thread). Nothing sleeps.
class ManualRackScheduler final : public RackScheduler {
public:
    Clock::time_point now() const override { return now_; }
    TaskID schedule(std::chrono::milliseconds delay, std::function<void()> task) override;
    void cancel(TaskID task) override;
    void runInBackground(std::function<std::function<void()>()> work) override;

    /// Moves the clock on by `duration`, running each task due by then at its own time, also
    /// those that the tasks schedule. Returns how many ran.
    int advance(std::chrono::milliseconds duration);
    /// Runs the background jobs queued so far, each followed by its result. Returns how many ran.
    int runBackgroundJobs();

    size_t pendingTaskCount() const { return tasks_.size(); }
    size_t pendingJobCount() const { return jobs_.size(); }

private:
    Clock::time_point now_{};
    TaskID nextID_ = 1;
    /// By due time, then by the order of scheduling.
    std::map<std::pair<Clock::time_point, TaskID>, std::function<void()>> tasks_;
    std::deque<std::function<std::function<void()>()>> jobs_;
};

} // namespace harlune
