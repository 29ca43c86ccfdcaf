#pragma once

#include "core/AudioContent.h"

#include <cstdint>
#include <span>
#include <vector>

namespace harlune {

/// Collects planar samples into full 65536-frame blocks (with their summaries) and hands out
/// content made of them. A short block is made only where a build ends (`flush`).
class AudioContentBuilder {
public:
    AudioContentBuilder(int channelCount, double sampleRate);

    int channelCount() const { return channelCount_; }
    double sampleRate() const { return sampleRate_; }
    int64_t frameCount() const;

    /// One view per channel, all of one length. Nothing happens for no views or no frames.
    void append(std::span<const std::span<const float>> buffers);
    void append(const std::vector<std::vector<float>>& arrays);
    /// Flushes what is pending, then takes the content's segments as they are: no sample moves.
    void append(const AudioContent& content);
    void appendSilence(int64_t frames);

    /// Everything so far, with pending frames as one more block; the builder is unchanged.
    AudioContent snapshot() const;
    /// Flushes, then returns the content. The builder may be used on.
    AudioContent build();

private:
    void flush();
    void startPending();

    int channelCount_;
    double sampleRate_;
    std::vector<Segment> segments_;
    std::vector<std::vector<float>> pending_;
};

} // namespace harlune
