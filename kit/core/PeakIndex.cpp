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
    // Each level from the one below it: groups of 8 from segments, of 64 from groups of 8.
    const std::vector<Entry>* below = &index->segments;
    int64_t belowSize = 1;
    for (size_t level = 0; level < groupSizes.size(); ++level) {
        const int64_t size = groupSizes[level];
        const int64_t fanOut = size / belowSize;
        const int64_t belowCount = (n + belowSize - 1) / belowSize;
        const int64_t count = (n + size - 1) / size;
        std::vector<Entry>& entries = index->groups[level];
        entries.reserve(static_cast<size_t>(count * channelCount));
        for (int64_t g = 0; g < count; ++g)
            for (int c = 0; c < channelCount; ++c) {
                Entry entry{3.4028235e38f, -3.4028235e38f, 0};
                for (int64_t b = g * fanOut; b < std::min(belowCount, (g + 1) * fanOut); ++b) {
                    const Entry& one = (*below)[static_cast<size_t>(b * channelCount + c)];
                    entry.min = std::min(entry.min, one.min);
                    entry.max = std::max(entry.max, one.max);
                    entry.sumSquares += one.sumSquares;
                }
                entries.push_back(entry);
            }
        below = &entries;
        belowSize = size;
    }
    return index;
}

} // namespace harlune
