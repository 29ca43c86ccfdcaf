#pragma once

#include "core/AudioContentBuilder.h"
#include "engine/AudioInputDevice.h"
#include "engine/CaptureRing.h"
#include "engine/SafetyFile.h"

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace harlune {

/// Everything of one armed state: the ring the capture callback fills, the meters, and the take
/// under way (its builder and safety file).
///
/// Threads: `capture` on the server's real-time thread (copies into the ring, nothing else);
/// `drain` on the tap thread or, at the end of a take, the main thread (one at a time, under the
/// drain lock); the rest on the main thread. The meters and the take have locks of their own, so
/// that a slow disk under the take's lock does not hold the meters up.
class TakeBuffer final : public CaptureSink {
public:
    /// Frames the tap hands on at once.
    static constexpr int tapBlockFrames = 4096;
    /// The ring holds at least this many seconds, so that a stalled tap loses nothing for a while.
    static constexpr double ringSeconds = 4.0;

    /// `inputChannels[c]` is the device channel that makes take channel c.
    TakeBuffer(int deviceChannels, std::vector<int> inputChannels, double sampleRate);

    void capture(int frameCount,
                 std::span<const float* const> channels) noexcept HARLUNE_NONBLOCKING override;

    /// Moves what waits in the ring on, in blocks of `tapBlockFrames`; with `partial` also the
    /// last short block. Returns the frames moved.
    int64_t drain(bool partial);

    /// Starts a take: a builder, and the safety file at `safetyPath` unless none is given or it
    /// cannot be made (the take then lives in memory alone). Main thread.
    void beginCapture(const std::optional<std::filesystem::path>& safetyPath);
    /// Ends the take: everything in the ring goes in first. Absent when no take ran.
    std::optional<AudioContent> endCapture();
    /// What the take holds so far, sharing its blocks. Absent between takes.
    std::optional<AudioContent> snapshot() const;

    /// Per take channel, the highest magnitude since the last call, and the latched clips.
    struct MeterReading {
        std::vector<float> peaks;
        std::vector<bool> clips;
    };
    MeterReading readMeters();
    void resetClips();

    int64_t captured() const { return captured_.load(std::memory_order_acquire); }
    int outputChannels() const { return static_cast<int>(inputChannels_.size()); }
    double sampleRate() const { return sampleRate_; }
    const CaptureRing& ring() const { return ring_; }
    /// Whether the take's safety file is open, and whether a write into it failed.
    bool hasSafetyFile() const;
    bool safetyFileFailed() const;

private:
    void ingest(int frames);

    CaptureRing ring_;
    std::vector<int> inputChannels_;
    double sampleRate_;

    std::mutex drainMutex_;
    std::vector<std::vector<float>> scratch_; // one plane per device channel, drain lock

    struct State {
        std::optional<AudioContentBuilder> builder;
        std::unique_ptr<SafetyFile> file;
    };
    mutable std::mutex stateMutex_;
    State state_;

    std::mutex metersMutex_;
    std::vector<float> peaks_;
    std::vector<bool> clips_;

    std::atomic<int64_t> captured_{0};
};

} // namespace harlune
