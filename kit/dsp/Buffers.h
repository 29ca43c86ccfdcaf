#pragma once

#include "base/AudioSource.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace harlune {

/// One owned float buffer per channel, all of one capacity. Made and grown off the audio thread;
/// the audio thread only writes into what exists.
class ChannelBuffers {
public:
    /// Zeroed buffers; a capacity under 1 counts as 1.
    ChannelBuffers(int channelCount, int64_t capacity);

    int channelCount() const { return static_cast<int>(storage_.size()); }
    /// Frames per buffer, at least 1.
    int64_t capacity() const { return capacity_; }
    /// One writable pointer per channel.
    ChannelPointers pointers() const { return pointers_; }
    float* channel(int index) const { return pointers_[static_cast<size_t>(index)]; }

    /// Grows only: when too small, every buffer is replaced by a zeroed one and contents are lost.
    void reserve(int64_t capacity);
    /// Read-only views of the first `count` frames of each buffer.
    std::vector<std::span<const float>> buffers(int64_t count) const;
    /// Places frames `range` of `source` at `offset`: zeroes `offset ..< offset + range.length()`,
    /// then reads the part of `range` inside `limit` (the source's full range when absent) and
    /// inside the source, at its matching place. Frames outside read as silence.
    void readZeroPadded(const AudioSource& source, FrameRange range,
                        std::optional<FrameRange> limit = std::nullopt, int64_t offset = 0);

private:
    std::vector<std::unique_ptr<float[]>> storage_;
    std::vector<float*> pointers_;
    int64_t capacity_;
};

/// A grow-only scratch of doubles with no kept contents.
class DoubleScratch {
public:
    double* pointer() const { return storage_.get(); }
    int64_t capacity() const { return capacity_; }
    void reserve(int64_t capacity);

private:
    std::unique_ptr<double[]> storage_;
    int64_t capacity_ = 0;
};

} // namespace harlune
