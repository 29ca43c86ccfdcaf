#include "engine/QueueRackScheduler.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace harlune {

// Shared with the tasks posted to the queue, which may run after the scheduler is gone.
struct QueueRackScheduler::Shared {
    explicit Shared(MainThreadQueue& q) : queue(q) {}

    MainThreadQueue& queue;
    std::mutex mutex;
    std::condition_variable wake;
    bool stopping = false;
    TaskID nextID = 1;
    std::map<std::pair<Clock::time_point, TaskID>, std::function<void()>> timers;
    /// Posted to the queue and not run yet; `cancel` takes an id out, and the task then does nothing.
    std::set<TaskID> posted;
    std::deque<std::function<std::function<void()>()>> jobs;
    std::thread timerThread;
    std::thread jobThread;

    void runTimers() {
        std::unique_lock lock(mutex);
        while (!stopping) {
            if (timers.empty()) {
                wake.wait(lock);
                continue;
            }
            const auto due = timers.begin()->first.first;
            if (Clock::now() < due) {
                wake.wait_until(lock, due);
                continue;
            }
            auto entry = timers.extract(timers.begin());
            const TaskID id = entry.key().second;
            posted.insert(id);
            queue.post([weak = weakSelf, id, task = std::move(entry.mapped())] {
                const auto self = weak.lock();
                if (!self)
                    return;
                {
                    const std::lock_guard guard(self->mutex);
                    if (self->posted.erase(id) == 0)
                        return; // cancelled after it fell due
                }
                task();
            });
        }
    }

    void runJobs() {
        std::unique_lock lock(mutex);
        while (true) {
            wake.wait(lock, [&] { return stopping || !jobs.empty(); });
            if (jobs.empty())
                return; // stopping, with nothing left
            auto work = std::move(jobs.front());
            jobs.pop_front();
            lock.unlock();
            std::function<void()> result;
            try {
                result = work();
            } catch (...) {
                // A job reports its failure through its result; one that throws has none to give.
            }
            if (result)
                queue.post([weak = weakSelf, result = std::move(result)] {
                    if (weak.lock())
                        result();
                });
            lock.lock();
        }
    }

    std::weak_ptr<Shared> weakSelf;
};

QueueRackScheduler::QueueRackScheduler(MainThreadQueue& queue) : shared_(std::make_shared<Shared>(queue)) {
    shared_->weakSelf = shared_;
    shared_->timerThread = std::thread([shared = shared_.get()] { shared->runTimers(); });
    shared_->jobThread = std::thread([shared = shared_.get()] { shared->runJobs(); });
}

QueueRackScheduler::~QueueRackScheduler() {
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->stopping = true;
        shared_->jobs.clear();
    }
    shared_->wake.notify_all();
    shared_->timerThread.join();
    shared_->jobThread.join();
}

RackScheduler::TaskID QueueRackScheduler::schedule(std::chrono::milliseconds delay,
                                                   std::function<void()> task) {
    TaskID id = 0;
    {
        const std::lock_guard lock(shared_->mutex);
        id = shared_->nextID++;
        shared_->timers.emplace(std::pair{Clock::now() + delay, id}, std::move(task));
    }
    shared_->wake.notify_all();
    return id;
}

void QueueRackScheduler::cancel(TaskID task) {
    const std::lock_guard lock(shared_->mutex);
    std::erase_if(shared_->timers, [&](const auto& entry) { return entry.first.second == task; });
    shared_->posted.erase(task);
}

void QueueRackScheduler::runInBackground(std::function<std::function<void()>()> work) {
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->jobs.push_back(std::move(work));
    }
    shared_->wake.notify_all();
}

} // namespace harlune
