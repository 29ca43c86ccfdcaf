#include "engine/devices/PortAudioWatchdog.h"

#include <chrono>
#include <portaudio.h>

namespace harlune {

std::string portAudioText(int error) {
    return std::string("PortAudio: ") + Pa_GetErrorText(error);
}

PortAudioWatchdog::PortAudioWatchdog(std::function<void(double silentSeconds)> look)
    : look_(std::move(look)), last_(now()), thread_([this] { watch(); }) {}

PortAudioWatchdog::~PortAudioWatchdog() {
    stop();
}

void PortAudioWatchdog::stop() {
    {
        const std::lock_guard lock(mutex_);
        quitting_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

int64_t PortAudioWatchdog::now() noexcept {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void PortAudioWatchdog::watch() {
    std::unique_lock lock(mutex_);
    while (!quitting_) {
        wake_.wait_for(lock, std::chrono::milliseconds(200));
        if (!quitting_)
            look_(static_cast<double>(now() - last_.load(std::memory_order_relaxed)) * 1e-9);
    }
}

} // namespace harlune
