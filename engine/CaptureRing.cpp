#include "engine/CaptureRing.h"

#include "base/Precondition.h"

namespace harlune {

CaptureRing::CaptureRing(int channelCount, int64_t minimumFrames) : channels_(channelCount) {
    HARLUNE_PRECONDITION(channelCount > 0 && minimumFrames > 0, "a capture ring needs channels and room");
    uint64_t frames = 1;
    while (frames < static_cast<uint64_t>(minimumFrames))
        frames <<= 1;
    mask_ = frames - 1;
    samples_.assign(frames * static_cast<uint64_t>(channelCount), 0.0f);
}

bool CaptureRing::push(int frameCount, std::span<const float* const> planes) noexcept HARLUNE_NONBLOCKING {
    if (frameCount <= 0)
        return true;
    const uint64_t write = writeIndex_.load(std::memory_order_relaxed);
    const uint64_t read = readIndex_.load(std::memory_order_acquire);
    const uint64_t room = (mask_ + 1) - (write - read);
    if (static_cast<int>(planes.size()) != channels_ || static_cast<uint64_t>(frameCount) > room) {
        overruns_.fetch_add(1, std::memory_order_relaxed);
        droppedFrames_.fetch_add(frameCount, std::memory_order_relaxed);
        return false;
    }
    const auto channels = static_cast<uint64_t>(channels_);
    for (uint64_t c = 0; c < channels; ++c) {
        const float* plane = planes[c];
        for (uint64_t i = 0; i < static_cast<uint64_t>(frameCount); ++i)
            samples_[((write + i) & mask_) * channels + c] = plane ? plane[i] : 0.0f;
    }
    writeIndex_.store(write + static_cast<uint64_t>(frameCount), std::memory_order_release);
    return true;
}

int64_t CaptureRing::available() const noexcept {
    return static_cast<int64_t>(writeIndex_.load(std::memory_order_acquire) -
                                readIndex_.load(std::memory_order_relaxed));
}

void CaptureRing::pop(int64_t frameCount, std::span<float* const> planes) noexcept {
    const uint64_t read = readIndex_.load(std::memory_order_relaxed);
    const auto channels = static_cast<uint64_t>(channels_);
    for (uint64_t i = 0; i < static_cast<uint64_t>(frameCount); ++i) {
        const float* frame = &samples_[((read + i) & mask_) * channels];
        for (uint64_t c = 0; c < channels; ++c)
            planes[c][i] = frame[c];
    }
    readIndex_.store(read + static_cast<uint64_t>(frameCount), std::memory_order_release);
}

} // namespace harlune
