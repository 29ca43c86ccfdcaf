#include "engine/ManualRackScheduler.h"

#include <algorithm>

namespace harlune {

RackScheduler::TaskID ManualRackScheduler::schedule(std::chrono::milliseconds delay,
                                                    std::function<void()> task) {
    const TaskID id = nextID_++;
    tasks_.emplace(std::pair{now_ + std::max(delay, std::chrono::milliseconds(0)), id}, std::move(task));
    return id;
}

void ManualRackScheduler::cancel(TaskID task) {
    std::erase_if(tasks_, [&](const auto& entry) { return entry.first.second == task; });
}

void ManualRackScheduler::runInBackground(std::function<std::function<void()>()> work) {
    jobs_.push_back(std::move(work));
}

int ManualRackScheduler::advance(std::chrono::milliseconds duration) {
    const Clock::time_point target = now_ + duration;
    int ran = 0;
    while (!tasks_.empty() && tasks_.begin()->first.first <= target) {
        auto due = tasks_.extract(tasks_.begin());
        now_ = due.key().first;
        due.mapped()();
        ++ran;
    }
    now_ = target;
    return ran;
}

int ManualRackScheduler::runBackgroundJobs() {
    int ran = 0;
    while (!jobs_.empty()) {
        auto work = std::move(jobs_.front());
        jobs_.pop_front();
        if (auto result = work())
            result();
        ++ran;
    }
    return ran;
}

} // namespace harlune
