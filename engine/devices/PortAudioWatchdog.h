#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace harlune {

/// "PortAudio: " and PortAudio's text for an error code.
std::string portAudioText(int error);

/// PortAudio reports no lost server by itself: a stream whose JACK server died even stays
/// "active", and its calls then wait for a callback that never comes. A watcher thread looks
/// five times a second how long the stream's callback has been silent. `mutex()` orders its look
/// with the owner's operations on the stream: the owner holds it around each of them.
class PortAudioWatchdog {
public:
    /// Starts the watcher. `look` runs on it, under the mutex, with the seconds since the last
    /// callback or `heard` call.
    explicit PortAudioWatchdog(std::function<void(double silentSeconds)> look);
    ~PortAudioWatchdog();
    PortAudioWatchdog(const PortAudioWatchdog&) = delete;
    PortAudioWatchdog& operator=(const PortAudioWatchdog&) = delete;

    /// Ends the watcher and waits for it; before the owner tears its stream down unlocked.
    void stop();
    std::mutex& mutex() { return mutex_; }
    /// From the stream's callback (one relaxed store: fit for the real-time thread), and when
    /// a stream starts.
    void heard() noexcept { last_.store(now(), std::memory_order_relaxed); }

private:
    static int64_t now() noexcept;
    void watch();

    std::function<void(double)> look_;
    std::atomic<int64_t> last_{0}; ///< steady-clock nanoseconds
    std::mutex mutex_;
    std::condition_variable wake_;
    bool quitting_ = false;
    std::thread thread_;
};

} // namespace harlune
