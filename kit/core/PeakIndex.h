#pragma once

#include "core/AudioBlock.h"

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace harlune {

/// Minimum, maximum and energy of frames `lo ..< hi` of one channel of a block: the block's own
/// value when the window is the whole block, else its 256-frame points with the ragged ends
/// scanned. Inline: it is the inner step of every peak query.
inline PeakSummary blockPeaks(const AudioBlock& block, int channel, int64_t lo, int64_t hi) {
    PeakSummary result = PeakSummary::empty();
    const auto c = static_cast<size_t>(channel);
    const WaveSummary& summary = block.summary();
    if (lo == 0 && hi == block.frameCount()) {
        result.merge(summary.blockMin[c], summary.blockMax[c], summary.blockSumSquares[c], hi);
        return result;
    }
    constexpr int64_t stride = WaveSummary::stride;
    const float* samples = block.channel(channel);
    const auto scan = [&](int64_t from, int64_t to) {
        const auto stretch = vec::minMaxSquares(samples + from, to - from);
        result.merge(stretch.min, stretch.max, stretch.sumSquares, to - from);
    };
    const int64_t p0 = (lo + stride - 1) / stride;
    const int64_t p1 = hi / stride;
    if (p0 < p1) {
        if (lo < stride * p0)
            scan(lo, stride * p0);
        // Points p0..<p1 end at or before `hi`, so all are full 256-frame runs; whole coarse
        // points stand in for the runs of sixteen they cover.
        const auto points = [&](int64_t from, int64_t to) {
            if (from >= to)
                return;
            const auto run = vec::mergePoints(summary.mins[c].data() + from, summary.maxs[c].data() + from,
                                              summary.sumSquares[c].data() + from, to - from);
            result.merge(run.min, run.max, run.sumSquares, (to - from) * stride);
        };
        constexpr int64_t factor = WaveSummary::coarseFactor;
        const int64_t q0 = (p0 + factor - 1) / factor;
        const int64_t q1 = p1 / factor;
        if (q0 < q1) {
            points(p0, q0 * factor);
            const auto run =
                vec::mergePoints(summary.coarseMins[c].data() + q0, summary.coarseMaxs[c].data() + q0,
                                 summary.coarseSumSquares[c].data() + q0, q1 - q0);
            result.merge(run.min, run.max, run.sumSquares, (q1 - q0) * WaveSummary::coarseStride);
            points(q1 * factor, p1);
        } else {
            points(p0, p1);
        }
        if (stride * p1 < hi)
            scan(stride * p1, hi);
    } else if (lo < hi) {
        scan(lo, hi);
    }
    return result;
}

/// The summaries of a content's segment list, so that a peak query over a long range reads a few
/// flat values instead of visiting every block it spans (a column of a 24-hour file at fit covers
/// some 30 blocks). Built once with the list, immutable, shared by copies of the content.
struct PeakIndex {
    /// Segments per group at each level: groups of 8, and groups of 64 (eight groups of 8).
    static constexpr std::array<int64_t, 2> groupSizes{8, 64};

    struct Entry {
        float min;
        float max;
        float sumSquares;
    };

    int channelCount = 0;
    /// Per segment, per channel (`segment * channelCount + channel`): its whole window.
    std::vector<Entry> segments;
    /// Per level, per group of that level's size (the last may hold fewer), per channel.
    std::array<std::vector<Entry>, groupSizes.size()> groups;

    static std::shared_ptr<const PeakIndex> make(const std::vector<Segment>& segments, int channelCount);
    /// From per-segment entries already known (an edit copies those of the segments it keeps);
    /// only the groups are summed.
    static std::shared_ptr<const PeakIndex> fromEntries(std::vector<Entry> segmentEntries, int channelCount);
    /// Appends the entries of one segment, one per channel.
    static void appendEntries(std::vector<Entry>& entries, const Segment& segment, int channelCount);

    const Entry& segment(int64_t index, int channel) const {
        return segments[static_cast<size_t>(index * channelCount + channel)];
    }
    const Entry& group(size_t level, int64_t index, int channel) const {
        return groups[level][static_cast<size_t>(index * channelCount + channel)];
    }
};

} // namespace harlune
