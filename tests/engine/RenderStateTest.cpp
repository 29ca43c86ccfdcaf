// The render callback on the test device: loops, ends, folds, gain, locks and positions.
#include "base/HarluneError.h"
#include "engine/EngineTestSupport.h"
#include "support/TestAudio.h"

#include <cmath>
#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::EngineOnTestDevice;
using testing::noisePlanes;
using testing::sinePlanes;

constexpr double rate = 48000;

// A looped range holding a whole number of periods must continue the sine exactly across each
// wrap, whatever the callback size and however the 4096-frame passes fall.
TEST(RenderState, LoopBoundaryIsSampleExact) {
    // 100 Hz at 48 kHz: a period of 480 frames; the range holds 11 of them and starts mid-period.
    const auto planes = sinePlanes(2, 20000, rate, 100.0);
    const AudioContent content = testing::fragmented(planes, rate, {3000, 7777});
    const FrameRange range{1234, 1234 + 11 * 480};
    for (const int callback : {256, 37, 1000, 5000, 9000}) {
        EngineOnTestDevice fixture;
        fixture.engine->start(content, range, true, 1.0f);
        const auto capture = fixture.device->pull(4 * range.length() + 333, callback);
        double residual = 0;
        double energy = 0;
        for (size_t c = 0; c < 2; ++c) {
            for (size_t i = 0; i < capture.planes[c].size(); ++i) {
                const double expected = planes[c][static_cast<size_t>(range.lower) + i % 480];
                const double difference = capture.planes[c][i] - expected;
                residual += difference * difference;
                energy += expected * expected;
            }
        }
        EXPECT_LT(10 * std::log10(residual / energy + 1e-30), -90.0) << "callback " << callback;
        EXPECT_FALSE(fixture.engine->state().finished.load());
        for (const bool silent : capture.silenceFlags)
            EXPECT_FALSE(silent);
    }
}

TEST(RenderState, NonLoopingRangeEndsSilentAndFinished) {
    const auto planes = noisePlanes(2, 5000, 3);
    EngineOnTestDevice fixture;
    fixture.engine->start(AudioContent(planes, rate), {100, 1100}, false, 1.0f);
    const auto capture = fixture.device->pull(1536, 512);
    auto& state = fixture.engine->state();
    for (size_t c = 0; c < 2; ++c) {
        for (size_t i = 0; i < 1000; ++i)
            ASSERT_EQ(capture.planes[c][i], planes[c][100 + i]);
        for (size_t i = 1000; i < 1536; ++i)
            ASSERT_EQ(capture.planes[c][i], 0.0f);
    }
    EXPECT_TRUE(state.finished.load());
    EXPECT_EQ(state.position.load(), 1100);
    // The callback that ends the range is not silent; it rendered frames.
    EXPECT_EQ(capture.silenceFlags, (std::vector<bool>{false, false, false}));

    // A new play clears the flag.
    fixture.engine->start(AudioContent(planes, rate), {0, 10}, false, 1.0f);
    EXPECT_FALSE(state.finished.load());
    EXPECT_EQ(state.position.load(), 0);
}

TEST(RenderState, EmptyRangeOrMissingContentIsSilentAndNeverFinishes) {
    EngineOnTestDevice fixture;
    const AudioContent content(noisePlanes(1, 100), rate);
    fixture.engine->start(content, {50, 50}, false, 1.0f);
    auto capture = fixture.device->pull(300, 100);
    EXPECT_EQ(capture.silenceFlags, (std::vector<bool>{true, true, true}));
    for (const float x : capture.planes[0])
        ASSERT_EQ(x, 0.0f);
    EXPECT_FALSE(fixture.engine->state().finished.load());

    RenderState bare;
    std::vector<float> out(64, 1.0f);
    float* pointers[] = {out.data()};
    bool silence = false;
    bare.render(64, pointers, silence);
    EXPECT_TRUE(silence);
    EXPECT_EQ(out, std::vector<float>(64, 0.0f));
}

TEST(RenderState, BusyProgramLockCostsOneSilentCallback) {
    EngineOnTestDevice fixture;
    fixture.engine->start(AudioContent(noisePlanes(1, 1000), rate), {0, 1000}, false, 1.0f);
    auto& state = fixture.engine->state();
    state.programLock.lock();
    auto capture = fixture.device->pull(128, 128);
    state.programLock.unlock();
    EXPECT_TRUE(capture.silenceFlags[0]);
    EXPECT_EQ(state.position.load(), 0);
    capture = fixture.device->pull(128, 128);
    EXPECT_FALSE(capture.silenceFlags[0]);
    EXPECT_EQ(state.position.load(), 128);
}

// More channels than outputs: channel c goes to output c mod outputs, each scaled by the gain
// over the number of channels the fullest output receives.
TEST(RenderState, FoldsChannelsOntoOutputs) {
    struct Case {
        int channels;
        float divisor;
    };
    for (const Case test : {Case{6, 3.0f}, Case{3, 2.0f}, Case{5, 3.0f}}) {
        const auto planes = noisePlanes(test.channels, 700, 9);
        EngineOnTestDevice fixture;
        fixture.device->setOutputChannelCount(2);
        fixture.engine->start(AudioContent(planes, rate), {0, 700}, false, 0.8f);
        ASSERT_EQ(fixture.device->format()->channelCount, 2);
        const auto capture = fixture.device->pull(700, 256);
        const float fold = 0.8f / test.divisor;
        for (size_t out = 0; out < 2; ++out) {
            for (size_t i = 0; i < 700; ++i) {
                float expected = 0;
                for (size_t c = out; c < planes.size(); c += 2)
                    expected += planes[c][i] * fold;
                ASSERT_NEAR(capture.planes[out][i], expected, 1e-6f) << test.channels << " channels";
            }
        }
    }
}

TEST(RenderState, ChannelsBeyondThirtyTwoAreDropped) {
    const auto planes = noisePlanes(34, 64, 4);
    EngineOnTestDevice fixture;
    fixture.device->setOutputChannelCount(34);
    fixture.engine->start(AudioContent(planes, rate), {0, 64}, false, 1.0f);
    const auto capture = fixture.device->pull(64, 64);
    EXPECT_EQ(capture.planes[31], planes[31]);
    EXPECT_EQ(capture.planes[32], std::vector<float>(64, 0.0f));
    EXPECT_EQ(capture.planes[33], std::vector<float>(64, 0.0f));
}

TEST(RenderState, SeekOutsideTheRange) {
    const auto planes = noisePlanes(1, 2000, 2);
    const AudioContent content(planes, rate);
    EngineOnTestDevice fixture;
    auto& state = fixture.engine->state();

    fixture.engine->start(content, {500, 1500}, true, 1.0f);
    state.position.store(1800);
    auto capture = fixture.device->pull(10, 10);
    EXPECT_EQ(capture.planes[0], std::vector<float>(planes[0].begin() + 500, planes[0].begin() + 510));
    EXPECT_EQ(state.position.load(), 510);

    state.position.store(100);
    capture = fixture.device->pull(10, 10);
    EXPECT_EQ(capture.planes[0][0], planes[0][500]);

    fixture.engine->setLooping(false);
    state.position.store(1700);
    capture = fixture.device->pull(10, 10);
    EXPECT_TRUE(state.finished.load());
    EXPECT_EQ(capture.planes[0], std::vector<float>(10, 0.0f));
    EXPECT_EQ(state.position.load(), 1700);
}

TEST(RenderState, GainAndLoopingApplyWhilePlaying) {
    const auto planes = noisePlanes(1, 1000, 8);
    EngineOnTestDevice fixture;
    fixture.engine->start(AudioContent(planes, rate), {0, 1000}, false, 1.0f);
    fixture.engine->setGain(0.25f);
    fixture.engine->setLooping(true);
    const auto capture = fixture.device->pull(1500, 300);
    EXPECT_EQ(capture.planes[0][1200], planes[0][200] * 0.25f);
    EXPECT_FALSE(fixture.engine->state().finished.load());
}

} // namespace
} // namespace harlune
