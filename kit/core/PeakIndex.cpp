#include "core/PeakIndex.h"

#include <algorithm>

namespace harlune {

PeakSummary blockPeaks(const AudioBlock& block, int channel, int64_t lo, int64_t hi) {
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
        // Points p0..<p1 end at or before `hi`, so all are full 256-frame runs.
        const auto points = vec::mergePoints(summary.mins[c].data() + p0, summary.maxs[c].data() + p0,
                                             summary.sumSquares[c].data() + p0, p1 - p0);
        result.merge(points.min, points.max, points.sumSquares, (p1 - p0) * stride);
        if (stride * p1 < hi)
            scan(stride * p1, hi);
    } else if (lo < hi) {
        scan(lo, hi);
    }
    return result;
}

std::shared_ptr<const PeakIndex> PeakIndex::make(const std::vector<Segment>& segments, int channelCount) {
    auto index = std::make_shared<PeakIndex>();
    index->channelCount = channelCount;
    const auto n = static_cast<int64_t>(segments.size());
    index->segments.reserve(static_cast<size_t>(n * channelCount));
    for (const Segment& segment : segments)
        for (int c = 0; c < channelCount; ++c) {
            const PeakSummary peaks =
                blockPeaks(*segment.block, c, segment.offset, segment.offset + segment.count);
            index->segments.push_back({peaks.min, peaks.max, peaks.sumSquares});
        }
    const int64_t groups = (n + groupSize - 1) / groupSize;
    index->groups.reserve(static_cast<size_t>(groups * channelCount));
    for (int64_t g = 0; g < groups; ++g)
        for (int c = 0; c < channelCount; ++c) {
            Entry entry{3.4028235e38f, -3.4028235e38f, 0};
            for (int64_t s = g * groupSize; s < std::min(n, (g + 1) * groupSize); ++s) {
                const Entry& one = index->segment(s, c);
                entry.min = std::min(entry.min, one.min);
                entry.max = std::max(entry.max, one.max);
                entry.sumSquares += one.sumSquares;
            }
            index->groups.push_back(entry);
        }
    return index;
}

} // namespace harlune
