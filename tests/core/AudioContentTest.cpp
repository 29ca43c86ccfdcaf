#include "core/AudioContent.h"

#include "support/AllocationCounter.h"
#include "support/TestAudio.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::fragmented;
using testing::noisePlanes;
using testing::Planes;
using testing::planesOf;

/// The reference model: the same edit done on plain vectors.
Planes replaced(Planes planes, FrameRange range, const Planes& with) {
    for (size_t c = 0; c < planes.size(); ++c) {
        auto& p = planes[c];
        const auto lo = std::clamp<int64_t>(range.lower, 0, static_cast<int64_t>(p.size()));
        const auto hi = std::clamp<int64_t>(range.upper, lo, static_cast<int64_t>(p.size()));
        p.erase(p.begin() + lo, p.begin() + hi);
        p.insert(p.begin() + lo, with[c].begin(), with[c].end());
    }
    return planes;
}

void expectInvariants(const AudioContent& content) {
    int64_t running = 0;
    ASSERT_EQ(content.starts().size(), content.segments().size());
    for (size_t i = 0; i < content.segments().size(); ++i) {
        EXPECT_EQ(content.starts()[i], running);
        EXPECT_GT(content.segments()[i].count, 0);
        running += content.segments()[i].count;
    }
    EXPECT_EQ(content.frameCount(), running);
}

TEST(AudioContentTest, EmptyContentHasNoSegmentsAndReadsNothing) {
    const AudioContent empty(2, 44100);
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_EQ(empty.segmentCount(), 0);
    std::vector<float> out{7};
    std::vector<float*> pointers{out.data()};
    empty.read({0, 0}, pointers);
    EXPECT_EQ(out[0], 7);
    const PeakSummary peaks = empty.peaks(0, {0, 100});
    EXPECT_TRUE(peaks.isEmpty());
    EXPECT_EQ(peaks.rms(), 0.0f);
    EXPECT_EQ(peaks.min, PeakSummary::empty().min);
}

// Building from planes is the builder's work: AudioContentBuilderTest.

TEST(AudioContentTest, ReadCrossesSegmentBordersAtAnyOffset) {
    const Planes planes = noisePlanes(2, 150'000, 7);
    const AudioContent content = fragmented(planes, 48000, {3, 1000, 65600, 70000, 140001});
    expectInvariants(content);
    EXPECT_EQ(planesOf(content), planes);
    for (const FrameRange range : {FrameRange{0, 1}, FrameRange{2, 4}, FrameRange{999, 65601},
                                   FrameRange{140000, 150000}, FrameRange{150000, 150000}}) {
        const auto read = content.readChannels(range);
        for (size_t c = 0; c < 2; ++c)
            EXPECT_TRUE(std::equal(read[c].begin(), read[c].end(), planes[c].begin() + range.lower));
    }
}

TEST(AudioContentTest, ReadPaddedClearsOutsideAndPlacesTheInside) {
    const Planes planes = noisePlanes(1, 100, 3);
    const AudioContent content(planes, 48000);
    std::vector<float> out(30, 9.0f);
    std::vector<float*> pointers{out.data()};
    content.readPadded({-10, 20}, pointers);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(out[static_cast<size_t>(i)], 0.0f);
    for (int i = 10; i < 30; ++i)
        EXPECT_EQ(out[static_cast<size_t>(i)], planes[0][static_cast<size_t>(i - 10)]);
    content.readPadded({90, 120}, pointers);
    EXPECT_EQ(out[9], planes[0][99]);
    EXPECT_EQ(out[10], 0.0f);
    content.readPadded({500, 530}, pointers);
    EXPECT_EQ(std::count(out.begin(), out.end(), 0.0f), 30);
}

TEST(AudioContentTest, SliceMakesWindowsOnTheSameBlocks) {
    const Planes planes = noisePlanes(2, 140'000, 5);
    const AudioContent content(planes, 48000);
    const AudioContent slice = content.slice({60'000, 70'000});
    ASSERT_EQ(slice.segmentCount(), 2);
    EXPECT_EQ(slice.segments()[0].block, content.segments()[0].block);
    EXPECT_EQ(slice.segments()[0].offset, 60'000);
    EXPECT_EQ(slice.segments()[1].block, content.segments()[1].block);
    EXPECT_EQ(slice.frameCount(), 10'000);
    EXPECT_EQ(slice.sample(1, 0), planes[1][60'000]);
    EXPECT_EQ(content.slice({-50, 10}).frameCount(), 10);
    EXPECT_EQ(content.slice({139'990, 200'000}).frameCount(), 10);
    EXPECT_TRUE(content.slice({300'000, 400'000}).isEmpty());
}

TEST(AudioContentTest, DeleteInsideOneBlockLeavesTwoWindowsAndCopiesNothing) {
    const AudioContent content(noisePlanes(2, 60'000, 2), 48000);
    const int64_t bytesBefore = AudioBlock::liveBytes();
    AudioContent edited = content;
    edited.deleteRange({1000, 2000});
    EXPECT_EQ(AudioBlock::liveBytes(), bytesBefore);
    ASSERT_EQ(edited.segmentCount(), 2);
    EXPECT_EQ(edited.segments()[0].block, edited.segments()[1].block);
    EXPECT_EQ(edited.frameCount(), 59'000);
    EXPECT_EQ(content.frameCount(), 60'000) << "the original value is untouched";

    edited.deleteRange(edited.fullRange());
    EXPECT_TRUE(edited.isEmpty());
    EXPECT_EQ(edited.channelCount(), 2) << "an emptied content keeps its format";
}

TEST(AudioContentTest, ReplaceSubrangeMatchesTheReferenceModel) {
    const Planes planes = noisePlanes(2, 150'000, 11);
    const Planes insertion = noisePlanes(2, 5000, 12);
    const AudioContent content = fragmented(planes, 48000, {70'000, 70'100});
    const AudioContent other(insertion, 48000);
    for (const FrameRange range :
         {FrameRange{0, 0}, FrameRange{0, 10}, FrameRange{65535, 65537}, FrameRange{70'050, 140'000},
          FrameRange{149'999, 150'000}, FrameRange{150'000, 150'100}, FrameRange{-20, 3},
          FrameRange{0, 150'000}}) {
        AudioContent edited = content;
        edited.replaceSubrange(range, other);
        expectInvariants(edited);
        EXPECT_EQ(planesOf(edited), replaced(planes, range, insertion))
            << "range " << range.lower << "..<" << range.upper;
    }
}

TEST(AudioContentTest, TransformedRewritesOnlyTheRangeAndActiveChannels) {
    const Planes planes = noisePlanes(3, 200'000, 9);
    const AudioContent content(planes, 48000);
    std::vector<int64_t> starts;
    const AudioContent doubled =
        content.transformed({70'000, 140'000}, ChannelSet{0, 2}, 30'000,
                            [&](std::span<const std::span<float>> channels, int64_t start) {
                                EXPECT_EQ(channels.size(), 2u);
                                starts.push_back(start);
                                for (auto channel : channels)
                                    for (float& x : channel)
                                        x *= 2;
                            });
    EXPECT_EQ(starts, (std::vector<int64_t>{70'000, 100'000, 130'000}));
    const Planes after = planesOf(doubled);
    for (size_t c = 0; c < 3; ++c)
        for (size_t i = 0; i < 200'000; i += 7) {
            const bool inside = i >= 70'000 && i < 140'000 && c != 1;
            EXPECT_EQ(after[c][i], inside ? planes[c][i] * 2 : planes[c][i]);
        }
    // Frames outside the range keep their blocks: the first block and the last one are shared.
    EXPECT_EQ(doubled.segments().front().block, content.segments().front().block);
    EXPECT_EQ(doubled.segments().back().block, content.segments().back().block);
}

TEST(AudioContentTest, TransformedPassesErrorsOnAndEmptyRangeIsIdentity) {
    const AudioContent content(noisePlanes(1, 1000), 48000);
    EXPECT_THROW(content.transformed({0, 1000}, std::nullopt, 100,
                                     [](std::span<const std::span<float>>, int64_t start) {
                                         if (start == 500)
                                             throw std::runtime_error("body failed");
                                     }),
                 std::runtime_error);
    const AudioContent same = content.transformed({2000, 3000}, std::nullopt, 100,
                                                  [](std::span<const std::span<float>>, int64_t) { FAIL(); });
    EXPECT_EQ(same.segments().front().block, content.segments().front().block);
}

TEST(AudioContentTest, MixingAddsWithGainAndGrowsToHoldTheOther) {
    const Planes base = noisePlanes(2, 1000, 20);
    const Planes add = noisePlanes(2, 300, 21);
    const AudioContent content(base, 48000);
    const AudioContent other(add, 48000);
    const AudioContent mixed = content.mixing(other, 900, -6.0);
    ASSERT_EQ(mixed.frameCount(), 1200);
    const float gain = static_cast<float>(std::pow(10.0, -6.0 / 20.0));
    const Planes out = planesOf(mixed);
    for (size_t c = 0; c < 2; ++c)
        for (size_t i = 0; i < 1200; ++i) {
            const float under = i < 1000 ? base[c][i] : 0.0f;
            const float over = i >= 900 ? add[c][i - 900] * gain + under : under;
            EXPECT_EQ(out[c][i], over) << c << " " << i;
        }
    // At the end it behaves as an append with the gain; an empty other changes nothing.
    EXPECT_EQ(content.mixing(other, 1000, 0).frameCount(), 1300);
    EXPECT_EQ(content.mixing(AudioContent(2, 48000), 10, 0).segments().front().block,
              content.segments().front().block);
    // A differing rate is not refused by mixing itself.
    EXPECT_EQ(content.mixing(AudioContent(add, 44100), 0, 0).frameCount(), 1000);
}

TEST(AudioContentTest, CopyAndReadAllocateNothing) {
    const AudioContent content = fragmented(noisePlanes(2, 100'000), 48000, {10, 5000, 70'000});
    std::vector<float> a(64), b(64);
    float* pointers[] = {a.data(), b.data()};
    AudioContent assigned(1, 1);
    testing::AllocationCounter counter;
    const AudioContent copy = content; // NOLINT: the copy is the point
    assigned = copy;
    assigned.read({4990, 5054}, pointers);
    EXPECT_EQ(counter.count(), 0);
    EXPECT_EQ(copy.segmentCount(), content.segmentCount());
}

TEST(AudioContentDeathTest, ProgrammersErrorsStopWithAMessage) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const AudioContent stereo(noisePlanes(2, 100), 48000);
    const AudioContent mono(noisePlanes(1, 100), 48000);
    std::vector<float> out(200);
    float* pointers[] = {out.data(), out.data()};
    EXPECT_DEATH(stereo.read({50, 101}, pointers), "read outside the content");
    EXPECT_DEATH(stereo.read({-1, 5}, pointers), "read outside the content");
    EXPECT_DEATH(
        {
            AudioContent edited = stereo;
            edited.replaceSubrange({0, 10}, mono);
        },
        "another channel count");
    EXPECT_DEATH(
        {
            AudioContent edited = stereo;
            edited.insert(AudioContent(noisePlanes(2, 10), 44100), 5);
        },
        "another sample rate");
    EXPECT_DEATH((void)stereo.mixing(mono, 0, 0), "another channel count");
    EXPECT_DEATH((void)stereo.sample(2, 0), "channel out of range");
    EXPECT_DEATH((void)AudioContent(0, 48000), "at least one channel");
}

TEST(AudioContentCompactionTest, SeventeenCrumbsAreRewrittenAndSixteenLeftAlone) {
    const Planes planes = noisePlanes(2, 100'000, 31);
    // Cuts at 1...n leave n one-frame segments plus the rest (two blocks' worth).
    for (const int64_t crumbs : {8, 16, 17}) {
        std::vector<int64_t> cuts;
        for (int64_t i = 1; i <= crumbs; ++i)
            cuts.push_back(i);
        const AudioContent content = fragmented(planes, 48000, cuts);
        if (crumbs <= 16)
            EXPECT_EQ(content.segmentCount(), crumbs + 2);
        else
            EXPECT_LT(content.segmentCount(), 5);
        EXPECT_EQ(planesOf(content), planes);
        expectInvariants(content);
    }
}

TEST(AudioContentCompactionTest, RunReachingABlockIsFlushedAndLoneCrumbStays) {
    const Planes planes = noisePlanes(1, 90'000, 32);
    std::vector<Segment> crumbs;
    for (size_t start = 0; start < 90'000; start += 3000) {
        const AudioContent piece({std::vector<float>(planes[0].begin() + static_cast<long>(start),
                                                     planes[0].begin() + static_cast<long>(start + 3000))},
                                 48000);
        crumbs.push_back(piece.segments().front());
    }
    AudioContent content(1, 48000, crumbs);
    ASSERT_EQ(content.segmentCount(), 30);
    content.compactIfFragmented();
    // 22 crumbs reach 65536 frames (66000) and are rewritten as 65536 + 464; the last 8 as one block.
    ASSERT_EQ(content.segmentCount(), 3);
    EXPECT_EQ(content.segments()[0].count, 65536);
    EXPECT_EQ(content.segments()[1].count, 464);
    EXPECT_EQ(content.segments()[2].count, 24'000);
    EXPECT_EQ(planesOf(content), planes);

    // One small segment between two large ones stays as it is.
    const AudioContent big(noisePlanes(1, 200'000, 33), 48000);
    AudioContent sandwich = big.slice({0, 65536});
    sandwich.append(big.slice({65536, 65546}));
    sandwich.append(big.slice({131072, 196608}));
    sandwich.compactIfFragmented();
    EXPECT_EQ(sandwich.segmentCount(), 3);
}

} // namespace
} // namespace harlune
