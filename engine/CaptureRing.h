#pragma once

#include "engine/Realtime.h"

#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

namespace harlune {

/// A lock-free single-producer, single-consumer ring of frames, for the capture callback to hand
/// audio to the tap thread. Frames are stored interleaved. A block that does not fit whole is
/// dropped and counted as an overrun: the producer never waits.
class CaptureRing {
public:
    /// Room for at least `minimumFrames` frames of `channelCount` channels (allocates; main thread).
    CaptureRing(int channelCount, int64_t minimumFrames);

    int channelCount() const { return channels_; }
    int64_t capacity() const { return static_cast<int64_t>(mask_ + 1); }

    /// Producer (real-time thread): copies `frameCount` frames of the planes in, or drops them all
    /// when there is no room or the plane count is wrong. Returns whether they went in.
    bool push(int frameCount, std::span<const float* const> planes) noexcept HARLUNE_NONBLOCKING;
    /// Consumer: frames waiting.
    int64_t available() const noexcept;
    /// Consumer: moves `frameCount` (at most `available`) frames out into planes of that length.
    void pop(int64_t frameCount, std::span<float* const> planes) noexcept;

    /// Blocks dropped for want of room, and their frames, since construction.
    int64_t overruns() const noexcept { return overruns_.load(std::memory_order_relaxed); }
    int64_t droppedFrames() const noexcept { return droppedFrames_.load(std::memory_order_relaxed); }

private:
    int channels_;
    uint64_t mask_;
    std::vector<float> samples_;
    alignas(64) std::atomic<uint64_t> writeIndex_{0};
    alignas(64) std::atomic<uint64_t> readIndex_{0};
    std::atomic<int64_t> overruns_{0};
    std::atomic<int64_t> droppedFrames_{0};
};

} // namespace harlune
