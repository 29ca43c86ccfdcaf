#pragma once

#include "core/AudioBlock.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace harlune {

/// Minimum, maximum and energy of frames `lo ..< hi` of one channel of a block: the block's own
/// value when the window is the whole block, else its 256-frame points with the ragged ends
/// scanned.
PeakSummary blockPeaks(const AudioBlock& block, int channel, int64_t lo, int64_t hi);

/// The summaries of a content's segment list, so that a peak query over a long range reads a few
/// flat values instead of visiting every block it spans (a column of a 24-hour file at fit covers
/// some 30 blocks). Built once with the list, immutable, shared by copies of the content.
struct PeakIndex {
    /// Segments per group of the coarse level.
    static constexpr int64_t groupSize = 16;

    struct Entry {
        float min;
        float max;
        float sumSquares;
    };

    int channelCount = 0;
    /// Per segment, per channel (`segment * channelCount + channel`): its whole window.
    std::vector<Entry> segments;
    /// Per group of `groupSize` segments (the last may hold fewer), per channel.
    std::vector<Entry> groups;

    static std::shared_ptr<const PeakIndex> make(const std::vector<Segment>& segments, int channelCount);

    const Entry& segment(int64_t index, int channel) const {
        return segments[static_cast<size_t>(index * channelCount + channel)];
    }
    const Entry& group(int64_t index, int channel) const {
        return groups[static_cast<size_t>(index * channelCount + channel)];
    }
};

} // namespace harlune
