// The render callback on the test device: loops, ends, folds, gain, locks and positions.
#include "engine/EngineTestSupport.h"
#include "support/TestAudio.h"

#include <cmath>
#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::noisePlanes;
using testing::Planes;
using Capture = TestAudioDevice::Capture;
constexpr double rate = 48000;

// An engine on the test device, playing `planes`.
struct Playing : testing::EngineOnTestDevice {
    Planes planes;
    RenderState& state = engine->state();

    Playing(Planes content, FrameRange range, bool loop, float gain = 1.0f, std::optional<int> outputs = {})
        : planes(std::move(content)) {
        device->setOutputChannelCount(outputs);
        engine->start(AudioContent(planes, rate), range, loop, gain);
    }
    std::vector<float> frames(size_t channel, int64_t from, int64_t to) const {
        return {planes[channel].begin() + from, planes[channel].begin() + to};
    }
};

// A looped range holding a whole number of periods must continue the sine exactly across each
// wrap, whatever the callback size and however the 4096-frame passes fall.
TEST(RenderState, LoopBoundaryIsSampleExact) {
    // 100 Hz at 48 kHz: a period of 480 frames; the range holds 11 of them and starts mid-period.
    const auto planes = testing::sinePlanes(2, 20000, rate, 100.0);
    const AudioContent content = testing::fragmented(planes, rate, {3000, 7777});
    const FrameRange range{1234, 1234 + 11 * 480};
    for (const int callback : {256, 37, 1000, 5000, 9000}) {
        testing::EngineOnTestDevice fixture;
        fixture.engine->start(content, range, true, 1.0f);
        const Capture capture = fixture.device->pull(4 * range.length() + 333, callback);
        double residual = 0;
        double energy = 0;
        for (size_t c = 0; c < 2; ++c) {
            for (size_t i = 0; i < capture.planes[c].size(); ++i) {
                const double expected = planes[c][static_cast<size_t>(range.lower) + i % 480];
                residual += (capture.planes[c][i] - expected) * (capture.planes[c][i] - expected);
                energy += expected * expected;
            }
        }
        EXPECT_LT(10 * std::log10(residual / energy + 1e-30), -90.0) << "callback " << callback;
        EXPECT_FALSE(fixture.engine->state().finished.load());
        EXPECT_EQ(capture.silenceFlags, std::vector<bool>(capture.silenceFlags.size(), false));
    }
}

TEST(RenderState, NonLoopingRangeEndsSilentAndFinished) {
    Playing play(noisePlanes(2, 5000, 3), {100, 1100}, false);
    const Capture capture = play.device->pull(1536, 512);
    for (size_t c = 0; c < 2; ++c) {
        EXPECT_EQ(std::vector<float>(capture.planes[c].begin(), capture.planes[c].begin() + 1000),
                  play.frames(c, 100, 1100));
        EXPECT_EQ(std::vector<float>(capture.planes[c].begin() + 1000, capture.planes[c].end()),
                  std::vector<float>(536, 0.0f));
    }
    EXPECT_TRUE(play.state.finished.load());
    EXPECT_EQ(play.state.position.load(), 1100);
    // The callback that ends the range is not silent; it rendered frames.
    EXPECT_EQ(capture.silenceFlags, (std::vector<bool>{false, false, false}));

    play.engine->start(AudioContent(play.planes, rate), {0, 10}, false, 1.0f);
    EXPECT_FALSE(play.state.finished.load()) << "a new play clears the flag";
    EXPECT_EQ(play.state.position.load(), 0);
}

TEST(RenderState, EmptyRangeOrMissingContentIsSilentAndNeverFinishes) {
    Playing play(noisePlanes(1, 100), {50, 50}, false);
    const Capture capture = play.device->pull(300, 100);
    EXPECT_EQ(capture.silenceFlags, (std::vector<bool>{true, true, true}));
    EXPECT_EQ(capture.planes[0], std::vector<float>(300, 0.0f));
    EXPECT_FALSE(play.state.finished.load());

    RenderState bare;
    std::vector<float> out(64, 1.0f);
    float* pointers[] = {out.data()};
    bool silence = false;
    bare.render(64, pointers, silence);
    EXPECT_TRUE(silence);
    EXPECT_EQ(out, std::vector<float>(64, 0.0f));
}

TEST(RenderState, BusyProgramLockCostsOneSilentCallback) {
    Playing play(noisePlanes(1, 1000), {0, 1000}, false);
    play.state.programLock.lock();
    EXPECT_TRUE(play.device->pull(128, 128).silenceFlags[0]);
    play.state.programLock.unlock();
    EXPECT_EQ(play.state.position.load(), 0);
    EXPECT_FALSE(play.device->pull(128, 128).silenceFlags[0]);
    EXPECT_EQ(play.state.position.load(), 128);
}

// More channels than outputs: channel c goes to output c mod outputs, each scaled by the gain
// over the number of channels the fullest output receives. Beyond 32 channels nothing plays.
TEST(RenderState, FoldsChannelsOntoOutputsAndDropsThoseBeyondThirtyTwo) {
    for (const auto& [channels, divisor] : {std::pair{6, 3.0f}, {3, 2.0f}, {5, 3.0f}}) {
        Playing play(noisePlanes(channels, 700, 9), {0, 700}, false, 0.8f, 2);
        ASSERT_EQ(play.device->format()->channelCount, 2);
        const Capture capture = play.device->pull(700, 256);
        for (size_t out = 0; out < 2; ++out)
            for (size_t i = 0; i < 700; ++i) {
                float expected = 0;
                for (size_t c = out; c < play.planes.size(); c += 2)
                    expected += play.planes[c][i] * (0.8f / divisor);
                ASSERT_NEAR(capture.planes[out][i], expected, 1e-6f) << channels << " channels";
            }
    }
    Playing wide(noisePlanes(34, 64, 4), {0, 64}, false, 1.0f, 34);
    const Capture capture = wide.device->pull(64, 64);
    EXPECT_EQ(capture.planes[31], wide.planes[31]);
    EXPECT_EQ(capture.planes[32], std::vector<float>(64, 0.0f));
    EXPECT_EQ(capture.planes[33], std::vector<float>(64, 0.0f));
}

// A seek outside the range jumps to its start while looping and ends the play otherwise.
TEST(RenderState, SeekOutsideTheRange) {
    Playing play(noisePlanes(1, 2000, 2), {500, 1500}, true);
    play.state.position.store(1800);
    EXPECT_EQ(play.device->pull(10, 10).planes[0], play.frames(0, 500, 510));
    EXPECT_EQ(play.state.position.load(), 510);
    play.state.position.store(100);
    EXPECT_EQ(play.device->pull(10, 10).planes[0], play.frames(0, 500, 510));

    play.engine->setLooping(false);
    play.state.position.store(1700);
    EXPECT_EQ(play.device->pull(10, 10).planes[0], std::vector<float>(10, 0.0f));
    EXPECT_TRUE(play.state.finished.load());
    EXPECT_EQ(play.state.position.load(), 1700);
}

TEST(RenderState, GainAndLoopingApplyWhilePlaying) {
    Playing play(noisePlanes(1, 1000, 8), {0, 1000}, false);
    play.engine->setGain(0.25f);
    play.engine->setLooping(true);
    EXPECT_EQ(play.device->pull(1500, 300).planes[0][1200], play.planes[0][200] * 0.25f);
    EXPECT_FALSE(play.state.finished.load());
}

} // namespace
} // namespace harlune
