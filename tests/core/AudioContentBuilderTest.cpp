#include "core/AudioContentBuilder.h"

#include "support/TestAudio.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::noisePlanes;
using testing::Planes;
using testing::planesOf;

TEST(AudioContentBuilderTest, OddSizedAppendsMakeFullBlocksAndOneShortEnd) {
    const Planes planes = noisePlanes(2, 150'001, 40);
    AudioContentBuilder builder(2, 48000);
    for (size_t start = 0; start < 150'001;) {
        const size_t n = std::min<size_t>(12'345, 150'001 - start);
        std::vector<std::span<const float>> views{{planes[0].data() + start, n},
                                                  {planes[1].data() + start, n}};
        builder.append(std::span<const std::span<const float>>(views));
        start += n;
    }
    EXPECT_EQ(builder.frameCount(), 150'001);
    const AudioContent content = builder.build();
    ASSERT_EQ(content.segmentCount(), 3);
    EXPECT_EQ(content.segments()[0].count, 65536);
    EXPECT_EQ(content.segments()[1].count, 65536);
    EXPECT_EQ(content.segments()[2].count, 150'001 - 131'072);
    EXPECT_EQ(planesOf(content), planes);
}

// The blocks' summaries are checked through `peaks` against a naive scan: PeaksTest.

TEST(AudioContentBuilderTest, AppendContentSharesItsSegments) {
    const AudioContent source(noisePlanes(1, 70'000, 42), 48000);
    AudioContentBuilder builder(1, 48000);
    builder.append(std::vector<std::vector<float>>{{1.0f, 2.0f, 3.0f}});
    builder.append(source);
    const AudioContent content = builder.build();
    ASSERT_EQ(content.segmentCount(), 3);
    EXPECT_EQ(content.segments()[0].count, 3) << "pending frames are flushed first";
    EXPECT_EQ(content.segments()[1].block, source.segments()[0].block);
    EXPECT_EQ(content.sample(0, 2), 3.0f);
}

TEST(AudioContentBuilderTest, SilenceAcrossBlocks) {
    AudioContentBuilder builder(3, 8000);
    builder.appendSilence(0);
    builder.appendSilence(-4);
    EXPECT_EQ(builder.frameCount(), 0);
    builder.appendSilence(140'000);
    const AudioContent silence = builder.build();
    EXPECT_EQ(silence.frameCount(), 140'000);
    for (int c = 0; c < 3; ++c) {
        const PeakSummary peaks = silence.peaks(c, silence.fullRange());
        EXPECT_EQ(peaks.min, 0.0f);
        EXPECT_EQ(peaks.max, 0.0f);
        EXPECT_EQ(peaks.count, 140'000);
    }
    EXPECT_EQ(AudioContent::silence(5, 2, 48000).frameCount(), 5);
}

TEST(AudioContentBuilderTest, SnapshotShowsPendingWithoutChangingTheBuilder) {
    AudioContentBuilder builder(1, 48000);
    builder.append(std::vector<std::vector<float>>{std::vector<float>(100, 0.25f)});
    const AudioContent first = builder.snapshot();
    const AudioContent second = builder.snapshot();
    EXPECT_EQ(builder.frameCount(), 100);
    EXPECT_EQ(planesOf(first), planesOf(second));
    EXPECT_EQ(first.frameCount(), 100);
    builder.append(std::vector<std::vector<float>>{std::vector<float>(50, 0.5f)});
    const AudioContent built = builder.build();
    EXPECT_EQ(built.frameCount(), 150);
    EXPECT_EQ(built.segmentCount(), 1);
    // The builder can be used on after build.
    builder.append(std::vector<std::vector<float>>{std::vector<float>(10, 1.0f)});
    EXPECT_EQ(builder.build().frameCount(), 160);
}

TEST(AudioContentBuilderTest, CopyingASourceRange) {
    const Planes planes = noisePlanes(2, 5000, 43);
    const ArraySource source(planes, 96000);
    const AudioContent content = AudioContent::copying(source, FrameRange{100, 4100});
    EXPECT_EQ(content.sampleRate(), 96000);
    EXPECT_EQ(content.frameCount(), 4000);
    EXPECT_EQ(content.sample(1, 0), planes[1][100]);
    EXPECT_EQ(AudioContent::copying(source).frameCount(), 5000);
}

} // namespace
} // namespace harlune
