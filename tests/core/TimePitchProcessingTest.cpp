#include "core/TimePitchProcessing.h"

#include "base/HarluneError.h"
#include "support/TestAudio.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::Planes;

Planes framesOf(const AudioSource& source, FrameRange range) {
    return source.readChannels(range);
}

TEST(TimePitchProcessingTest, OnlyTheRangeIsStretchedAndTheRestMoves) {
    const auto planes = testing::noisePlanes(2, 3 * 44100, 21);
    const AudioContent content(planes, 44100);
    const FrameRange range{44100, 2 * 44100};
    const AudioContent result = timePitched(content, range, 2, 0, std::nullopt);

    ASSERT_EQ(result.frameCount(), 3 * 44100 - 22050);
    EXPECT_EQ(result.channelCount(), 2);
    EXPECT_EQ(result.sampleRate(), 44100);
    EXPECT_EQ(framesOf(result, {0, 44100}), framesOf(content, {0, 44100}));
    EXPECT_EQ(framesOf(result, {66150, result.frameCount()}), framesOf(content, {2 * 44100, 3 * 44100}));
    // The original is a value and stays as it was.
    EXPECT_EQ(content.frameCount(), 3 * 44100);
}

TEST(TimePitchProcessingTest, EmptyRangeGivesTheContentUnchanged) {
    const AudioContent content(testing::noisePlanes(1, 5000, 2), 48000);
    for (const FrameRange range : {FrameRange{100, 100}, FrameRange{6000, 7000}}) {
        const AudioContent result = timePitched(content, range, 2, 0, std::nullopt);
        EXPECT_EQ(result.segments().size(), content.segments().size());
        EXPECT_EQ(testing::planesOf(result), testing::planesOf(content));
    }
    // A range running past the end is clamped to it.
    EXPECT_EQ(timePitched(content, {4000, 9000}, 2, 0, std::nullopt).frameCount(), 4500);
}

TEST(TimePitchProcessingTest, CancelAndBadArgumentsPassOn) {
    const AudioContent content(testing::noisePlanes(1, 44100, 3), 44100);
    int calls = 0;
    try {
        (void)timePitched(content, content.fullRange(), 1.1, 0, [&](double) { return calls++ < 3; });
        ADD_FAILURE() << "not cancelled";
    } catch (const HarluneError& error) {
        EXPECT_TRUE(error.isCancelled());
    }
    EXPECT_THROW((void)timePitched(content, content.fullRange(), 5, 0, std::nullopt), HarluneError);
    EXPECT_THROW((void)timePitched(content, content.fullRange(), 1, 3000, std::nullopt), HarluneError);
}

} // namespace
} // namespace harlune
