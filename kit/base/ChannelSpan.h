#pragma once

#include "base/AudioSource.h"
#include "base/Precondition.h"

#include <algorithm>
#include <span>

namespace harlune {

/// A writable, non-owning view of one stretch of planar audio: one pointer per channel and a
/// common frame count, so that a buffer never travels as loose pointers and counts. Slicing
/// (by channels or by frames) makes a new view and allocates nothing, so it is free on the
/// audio thread.
class ChannelSpan {
public:
    ChannelSpan() = default;
    /// `frameCount` frames from each pointer, starting `offset` frames in.
    ChannelSpan(ChannelPointers channels, int frameCount, int offset = 0)
        : channels_(channels), frameCount_(frameCount), offset_(offset) {
        HARLUNE_PRECONDITION(frameCount >= 0 && offset >= 0, "a channel span of negative size");
    }

    int channelCount() const { return static_cast<int>(channels_.size()); }
    int frameCount() const { return frameCount_; }

    /// The first frame of channel `index`, with `frameCount` frames after it.
    float* channel(int index) const {
        HARLUNE_DEBUG_PRECONDITION(index >= 0 && index < channelCount(), "channel index outside the span");
        return channels_[static_cast<size_t>(index)] + offset_;
    }
    std::span<float> samples(int index) const { return {channel(index), static_cast<size_t>(frameCount_)}; }

    /// The first `count` channels (at most all of them).
    ChannelSpan firstChannels(int count) const {
        const auto kept = static_cast<size_t>(std::clamp(count, 0, channelCount()));
        return ChannelSpan(channels_.first(kept), frameCount_, offset_);
    }
    /// Frames `start ..< start + count` of every channel.
    ChannelSpan frames(int start, int count) const {
        HARLUNE_DEBUG_PRECONDITION(start >= 0 && count >= 0 && start + count <= frameCount_,
                                   "frames outside the span");
        return ChannelSpan(channels_, count, offset_ + start);
    }

private:
    ChannelPointers channels_;
    int frameCount_ = 0;
    int offset_ = 0;
};

} // namespace harlune
