// Statistics of an hour of content that shares one block: the float block sums must not drift.
#include "core/AudioContent.h"
#include "dsp/SignalAnalysis.h"

#include <gtest/gtest.h>
#include <vector>

namespace harlune {
namespace {

TEST(SignalAnalysisOfContentTest, AnHourOfDCKeepsItsMean) {
    constexpr double rate = 48000;
    constexpr int64_t hour = 3600 * 48000;
    const AudioBlockRef block = AudioBlock::make({std::vector<float>(AudioBlock::preferredFrameCount, 0.1f)});
    std::vector<Segment> segments;
    for (int64_t at = 0; at < hour; at += block->frameCount())
        segments.push_back({block, 0, std::min(block->frameCount(), hour - at)});
    const AudioContent content(1, rate, segments);
    ASSERT_EQ(content.frameCount(), hour);
    const SignalStats stats = SignalAnalysis::stats(content, content.fullRange());
    EXPECT_NEAR(stats.dcOffset[0], 0.1, 1e-5);
    EXPECT_NEAR(stats.rms[0], 0.1, 1e-5);
    EXPECT_EQ(stats.peak[0], 0.1f);
    EXPECT_EQ(stats.peakFrame[0], 0);
}

} // namespace
} // namespace harlune
