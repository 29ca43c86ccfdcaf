#pragma once

#include "base/FrameRange.h"
#include "base/Precondition.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace harlune {

/// Writable destination of a read: one pointer per channel, each with room for the range.
using ChannelPointers = std::span<float* const>;
/// Read-only views of one chunk, one per channel, all of the same length.
using ChunkViews = std::span<const std::span<const float>>;

/// A finite, random-access source of planar float frames. Implementations are immutable values
/// or snapshots, so `read` may be called from any thread.
class AudioSource {
public:
    virtual ~AudioSource() = default;

    virtual int channelCount() const = 0;
    /// Hz.
    virtual double sampleRate() const = 0;
    virtual int64_t frameCount() const = 0;
    /// Copies `range` (inside `0..<frameCount`) into `destination`, one pointer per channel. Never
    /// fails, never allocates. With fewer pointers than channels only those channels are written;
    /// extra pointers stay untouched.
    virtual void read(FrameRange range, ChannelPointers destination) const = 0;

    /// Seconds; 0 when the rate is not above 0.
    double duration() const {
        const double rate = sampleRate();
        return rate > 0 ? static_cast<double>(frameCount()) / rate : 0.0;
    }
    FrameRange fullRange() const { return {0, frameCount()}; }

    /// One array per channel holding the range (empty arrays for an empty range).
    std::vector<std::vector<float>> readChannels(FrameRange range) const;

    /// Walks `range` (the full range when absent) in order, in chunks of at most `chunkSize`
    /// frames (at least one). `body(views, startFrame)` gets read-only views into buffers that are
    /// reused from chunk to chunk: it must not keep them. An exception from `body` ends the walk
    /// and passes on.
    template <class Body>
    void forEachChunk(std::optional<FrameRange> range, int64_t chunkSize, Body&& body) const;

protected:
    AudioSource() = default;
    AudioSource(const AudioSource&) = default;
    AudioSource& operator=(const AudioSource&) = default;
};

/// The source over planar arrays held in memory.
class ArraySource final : public AudioSource {
public:
    /// At least one channel, all of equal length; anything else stops the program.
    ArraySource(std::vector<std::vector<float>> channels, double sampleRate);

    int channelCount() const override { return static_cast<int>(channels_.size()); }
    double sampleRate() const override { return sampleRate_; }
    int64_t frameCount() const override { return static_cast<int64_t>(channels_.front().size()); }
    void read(FrameRange range, ChannelPointers destination) const override;

    const std::vector<std::vector<float>>& channels() const { return channels_; }

private:
    std::vector<std::vector<float>> channels_;
    double sampleRate_;
};

// Implementation ------------------------------------------------------------------------------

template <class Body>
void AudioSource::forEachChunk(std::optional<FrameRange> range, int64_t chunkSize, Body&& body) const {
    const FrameRange walk = range.value_or(fullRange());
    const int channels = channelCount();
    if (walk.isEmpty() || channels <= 0)
        return;
    HARLUNE_PRECONDITION(walk.lower >= 0 && walk.upper <= frameCount(),
                         "forEachChunk range outside the source");

    const int64_t capacity = std::max<int64_t>(1, std::min(chunkSize, walk.length()));
    std::vector<std::vector<float>> buffers(static_cast<size_t>(channels),
                                            std::vector<float>(static_cast<size_t>(capacity)));
    std::vector<float*> pointers(buffers.size());
    std::vector<std::span<const float>> views(buffers.size());
    for (size_t c = 0; c < buffers.size(); ++c)
        pointers[c] = buffers[c].data();

    for (int64_t position = walk.lower; position < walk.upper;) {
        const int64_t n = std::min(capacity, walk.upper - position);
        read({position, position + n}, pointers);
        for (size_t c = 0; c < buffers.size(); ++c)
            views[c] = std::span<const float>(buffers[c].data(), static_cast<size_t>(n));
        body(ChunkViews(views), position);
        position += n;
    }
}

} // namespace harlune
