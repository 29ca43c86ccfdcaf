#pragma once

#include "engine/AudioOutputDevice.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace harlune {

/// A main loop for programs without one (the command line, tests): other threads post tasks,
/// the owning thread runs them when it asks. The Qt application posts to its event loop instead.
class MainThreadQueue {
public:
    /// A `PostToMainThread` that appends to this queue. The queue must outlive its users.
    PostToMainThread poster();
    void post(std::function<void()> task);
    /// Runs every task posted so far; returns how many ran.
    int runPending();
    /// Waits up to `timeout` for a task, then runs what is pending; returns how many ran.
    int runFor(std::chrono::milliseconds timeout);

private:
    std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<std::function<void()>> tasks_;
};

} // namespace harlune
