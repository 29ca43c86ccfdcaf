#include "engine/MainThreadQueue.h"

namespace harlune {

PostToMainThread MainThreadQueue::poster() {
    return [this](std::function<void()> task) {
        post(std::move(task));
    };
}

void MainThreadQueue::post(std::function<void()> task) {
    {
        const std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    posted_.notify_one();
}

int MainThreadQueue::runPending() {
    std::deque<std::function<void()>> batch;
    {
        const std::lock_guard lock(mutex_);
        batch.swap(tasks_);
    }
    for (auto& task : batch)
        task();
    return static_cast<int>(batch.size());
}

int MainThreadQueue::runFor(std::chrono::milliseconds timeout) {
    {
        std::unique_lock lock(mutex_);
        posted_.wait_for(lock, timeout, [this] { return !tasks_.empty(); });
    }
    return runPending();
}

} // namespace harlune
