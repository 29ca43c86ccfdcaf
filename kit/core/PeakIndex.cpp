#include "core/PeakIndex.h"

#include <algorithm>

namespace harlune {

void PeakIndex::appendEntries(std::vector<Entry>& entries, const Segment& segment, int channelCount) {
    for (int c = 0; c < channelCount; ++c) {
        const PeakSummary peaks =
            blockPeaks(*segment.block, c, segment.offset, segment.offset + segment.count);
        entries.push_back({peaks.min, peaks.max, peaks.sumSquares});
    }
}

std::shared_ptr<const PeakIndex> PeakIndex::make(const std::vector<Segment>& segments, int channelCount) {
    std::vector<Entry> entries;
    entries.reserve(segments.size() * static_cast<size_t>(channelCount));
    for (const Segment& segment : segments)
        appendEntries(entries, segment, channelCount);
    return fromEntries(std::move(entries), channelCount);
}

std::shared_ptr<const PeakIndex> PeakIndex::fromEntries(std::vector<Entry> segmentEntries, int channelCount) {
    auto index = std::make_shared<PeakIndex>();
    index->channelCount = channelCount;
    index->segments = std::move(segmentEntries);
    const auto n = static_cast<int64_t>(index->segments.size()) / channelCount;
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
