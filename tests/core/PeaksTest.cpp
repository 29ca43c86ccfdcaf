#include "core/AudioContent.h"
#include "support/TestAudio.h"

#include <gtest/gtest.h>
#include <random>

namespace harlune {
namespace {

using testing::fragmented;
using testing::noisePlanes;
using testing::Planes;

PeakSummary naivePeaks(const std::vector<float>& plane, FrameRange range) {
    PeakSummary result;
    for (int64_t i = std::max<int64_t>(0, range.lower);
         i < std::min<int64_t>(range.upper, static_cast<int64_t>(plane.size())); ++i) {
        const float x = plane[static_cast<size_t>(i)];
        result.merge(x, x, x * x, 1);
    }
    return result;
}

void expectSamePeaks(const PeakSummary& actual, const PeakSummary& expected) {
    EXPECT_EQ(actual.count, expected.count);
    EXPECT_EQ(actual.min, expected.min);
    EXPECT_EQ(actual.max, expected.max);
    // The summary sums in another order than the naive loop: compare energies loosely.
    EXPECT_NEAR(actual.sumSquares, expected.sumSquares, 1e-4 * std::max(1.0f, expected.sumSquares));
}

TEST(PeaksTest, RandomRangesOverAFragmentedContentMatchANaiveScan) {
    const Planes planes = noisePlanes(2, 300'000, 50);
    const AudioContent content = fragmented(planes, 48000, {300, 301, 5000, 65536, 65800, 131'000, 200'123});
    std::mt19937 generator(51);
    std::uniform_int_distribution<int64_t> position(-100, 300'100);
    for (int trial = 0; trial < 300; ++trial) {
        int64_t a = position(generator), b = position(generator);
        if (trial % 3 == 0)
            b = a + trial % 7; // empty, one-frame and other short ranges too
        else if (trial % 3 == 1)
            b = a + trial;
        const FrameRange range{std::min(a, b), std::max(a, b)};
        for (int c = 0; c < 2; ++c)
            expectSamePeaks(content.peaks(c, range), naivePeaks(planes[static_cast<size_t>(c)], range));
    }
}

TEST(PeaksTest, WindowAtOffset300UsesPointsFromTheSecondPointsEnd) {
    const Planes planes = noisePlanes(1, 65536, 53);
    const AudioContent content = AudioContent(planes, 48000).slice({300, 65536});
    ASSERT_EQ(content.segments()[0].offset, 300);
    // Poison the summary check: scanning 300..<512 and merging points from 2 on must give the
    // same as a naive scan.
    expectSamePeaks(content.peaks(0, content.fullRange()), naivePeaks(planes[0], {300, 65536}));
}

TEST(PeaksTest, RmsOfAKnownSignal) {
    std::vector<float> square(4096);
    for (size_t i = 0; i < square.size(); ++i)
        square[i] = (i / 8) % 2 == 0 ? 0.5f : -0.5f;
    const AudioContent content({square}, 48000);
    EXPECT_FLOAT_EQ(content.peaks(0, content.fullRange()).rms(), 0.5f);
}

} // namespace
} // namespace harlune
