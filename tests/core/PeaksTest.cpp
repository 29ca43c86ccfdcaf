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
    // Energy summed in double: a float running sum over half a million frames drifts further
    // than the summaries' sums of sums do.
    PeakSummary result;
    double energy = 0;
    for (int64_t i = std::max<int64_t>(0, range.lower);
         i < std::min<int64_t>(range.upper, static_cast<int64_t>(plane.size())); ++i) {
        const float x = plane[static_cast<size_t>(i)];
        result.merge(x, x, 0, 1);
        energy += static_cast<double>(x) * x;
    }
    result.sumSquares = static_cast<float>(energy);
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

TEST(PeaksTest, RangesOverManySegmentsMatchANaiveScanBeforeAndAfterAnEdit) {
    // Some 150 segments (each over the 4096 frames under which appends compact), cut at uneven
    // places: wide ranges go through whole groups of segments at both levels, and their ends
    // through windows that start and stop inside blocks.
    Planes planes = noisePlanes(2, 720'000, 54);
    std::vector<int64_t> cuts;
    for (int64_t at = 1234; at < 715'000; at += 4801)
        cuts.push_back(at);
    // Every other piece a block of its own (a whole window), the rest windows into one block:
    // so no two neighbours share a block, and nothing merges.
    const AudioContent whole(planes, 48000);
    AudioContent content(2, 48000);
    cuts.push_back(720'000);
    int64_t previous = 0;
    for (size_t piece = 0; piece < cuts.size(); ++piece) {
        const FrameRange range{previous, cuts[piece]};
        if (piece % 2 == 0)
            content.append(AudioContent::copying(whole, range));
        else
            content.append(whole.slice(range));
        previous = cuts[piece];
    }
    ASSERT_GT(content.segmentCount(), 2 * PeakIndex::groupSizes.back());
    std::mt19937 generator(55);
    std::uniform_int_distribution<int64_t> position(0, 720'000);
    const auto checkRandomRanges = [&] {
        int64_t hint = -1; // carried from query to query, so mostly wrong here: it must not matter
        for (int trial = 0; trial < 200; ++trial) {
            const int64_t a = position(generator), b = position(generator);
            const FrameRange range{std::min(a, b), std::max(a, b)};
            for (int c = 0; c < 2; ++c) {
                const PeakSummary expected = naivePeaks(planes[static_cast<size_t>(c)], range);
                expectSamePeaks(content.peaks(c, range), expected);
                expectSamePeaks(content.peaks(c, range, hint), expected);
            }
        }
        // Columns in order, as a drawing asks, at a few widths.
        for (const int64_t width : {int64_t{97}, int64_t{5000}, int64_t{70'001}}) {
            int64_t columnHint = -1;
            for (int64_t start = 0; start < content.frameCount(); start += width) {
                const FrameRange range{start, start + width};
                expectSamePeaks(content.peaks(1, range, columnHint), naivePeaks(planes[1], range));
            }
        }
        for (int c = 0; c < 2; ++c)
            expectSamePeaks(content.peaks(c, content.fullRange()),
                            naivePeaks(planes[static_cast<size_t>(c)], content.fullRange()));
    };
    checkRandomRanges();

    // A loud burst pasted in the middle must show in every range over it, and the rest must move.
    const Planes burst = {std::vector<float>(1000, 1.5f), std::vector<float>(1000, -1.5f)};
    content.replaceSubrange({100'000, 150'000}, AudioContent(burst, 48000));
    for (size_t c = 0; c < 2; ++c) {
        planes[c].erase(planes[c].begin() + 100'000, planes[c].begin() + 150'000);
        planes[c].insert(planes[c].begin() + 100'000, burst[c].begin(), burst[c].end());
    }
    ASSERT_EQ(content.frameCount(), static_cast<int64_t>(planes[0].size()));
    position = std::uniform_int_distribution<int64_t>(0, content.frameCount());
    checkRandomRanges();
    EXPECT_EQ(content.peaks(0, {0, content.frameCount()}).max, 1.5f);
    EXPECT_EQ(content.peaks(1, {0, content.frameCount()}).min, -1.5f);
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
