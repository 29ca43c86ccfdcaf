#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace harlune {

/// A repeating main-thread timer, running from its creation until it is destroyed.
class RepeatingTimer {
public:
    virtual ~RepeatingTimer() = default;
};

/// Makes a timer that calls `tick` every `interval` on the calling (main) thread. The model takes
/// one of these so that tests can fire the ticks themselves.
using RepeatingTimerFactory = std::function<std::unique_ptr<RepeatingTimer>(
    std::chrono::microseconds interval, std::function<void()> tick)>;

/// Timers on the Qt event loop of the calling thread.
RepeatingTimerFactory qtRepeatingTimers();

} // namespace harlune
