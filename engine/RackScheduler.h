#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace harlune {

/// The main loop as the effects rack sees it: a clock, delayed main-thread tasks, and background
/// jobs whose result is handed back to the main thread. The application runs it on Qt's event
/// loop and thread pool, the command line on a `MainThreadQueue`, and tests pump it by hand.
class RackScheduler {
public:
    using Clock = std::chrono::steady_clock;
    using TaskID = uint64_t;

    virtual ~RackScheduler() = default;

    virtual Clock::time_point now() const = 0;
    /// Runs `task` on the main thread once `delay` has passed, unless cancelled first.
    virtual TaskID schedule(std::chrono::milliseconds delay, std::function<void()> task) = 0;
    /// Cancels a scheduled task that has not run; an unknown or finished one is ignored.
    virtual void cancel(TaskID task) = 0;
    /// Runs `work` off the main thread, then the function it returns on the main thread.
    virtual void runInBackground(std::function<std::function<void()>()> work) = 0;
};

} // namespace harlune
