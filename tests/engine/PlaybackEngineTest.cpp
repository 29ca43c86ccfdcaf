// The engine's main-thread side: graph, start, pause, audible position, retirement, device events.
#include "base/HarluneError.h"
#include "engine/AudioDeviceError.h"
#include "engine/EngineTestSupport.h"
#include "support/TestAudio.h"

#include <gtest/gtest.h>
#include <tuple>

namespace harlune {
namespace {

using testing::EngineOnTestDevice;
using testing::noisePlanes;

TEST(PlaybackEngine, GraphFollowsRateAndChannelsAndIsRebuiltOnlyOnChange) {
    struct Play {
        int channels;
        double rate;
        StreamFormat format;
        int configures;
    };
    EngineOnTestDevice fixture;
    // Six channels fold into the same two-channel stream as two.
    for (const Play play :
         {Play{1, 44100, {44100, 1}, 1}, Play{1, 44100, {44100, 1}, 1}, Play{2, 44100, {44100, 2}, 2},
          Play{6, 44100, {44100, 2}, 2}, Play{2, 48000, {48000, 2}, 3}}) {
        fixture.engine->start(AudioContent(noisePlanes(play.channels, 100), play.rate), {0, 100}, false,
                              1.0f);
        EXPECT_EQ(fixture.device->format(), play.format);
        EXPECT_EQ(fixture.device->configureCount(), play.configures) << play.channels << " at " << play.rate;
        EXPECT_TRUE(fixture.device->isRunning());
    }
}

TEST(PlaybackEngine, FormatErrorsNameTheRate) {
    for (const auto& [rate, channels, detail] : {std::tuple{0.0, 1, "playback format 0 Hz"},
                                                 {-44100.0, 2, "playback format -44100 Hz"},
                                                 {44100.5, 3, "playback format 44100.5 Hz"},
                                                 {1e9, 2, "playback format 1000000000 Hz"}}) {
        try {
            makeStreamFormat(rate, channels);
            ADD_FAILURE() << "no error for " << rate;
        } catch (const HarluneError& error) {
            EXPECT_EQ(error.kind(), HarluneError::Kind::unsupportedFormat);
            EXPECT_EQ(error.detail(), detail);
        }
    }
    EXPECT_EQ(makeStreamFormat(22050, 1), (StreamFormat{22050, 1}));
}

// A device that fails to start, or to build the stream for a new format, reports it to the
// caller; the next play, of whatever format, builds and starts what it needs.
TEST(PlaybackEngine, DeviceFailuresReachTheCallerAndTheNextPlayRecovers) {
    const auto planes = noisePlanes(1, 100);
    const AudioContent mono(planes, 44100);
    const AudioContent stereo48(noisePlanes(2, 100), 48000);
    for (const bool failConfigure : {false, true}) {
        EngineOnTestDevice fixture;
        fixture.engine->start(mono, {0, 100}, false, 1.0f);
        if (failConfigure)
            fixture.device->failNextConfigure("server gone");
        else
            fixture.device->failNextStart("device gone");
        EXPECT_THROW(fixture.engine->start(stereo48, {0, 100}, false, 1.0f), AudioDeviceError);
        EXPECT_FALSE(fixture.device->isRunning());

        fixture.engine->start(mono, {0, 100}, false, 1.0f);
        EXPECT_EQ(fixture.device->format(), (StreamFormat{44100, 1})) << failConfigure;
        EXPECT_TRUE(fixture.device->isRunning());
        const auto capture = fixture.device->pull(100, 100);
        ASSERT_EQ(capture.planes.size(), 1u);
        EXPECT_EQ(capture.planes[0], planes[0]) << failConfigure;
    }
}

// Content and range swap in at the next callback, position and settings stay; a pause keeps
// the program and silences callbacks that still come.
TEST(PlaybackEngine, ReplaceContentKeepsThePlayAndPauseSilencesIt) {
    EngineOnTestDevice fixture;
    const auto first = noisePlanes(1, 1000, 1);
    const auto second = noisePlanes(1, 2000, 2);
    fixture.engine->start(AudioContent(first, 48000), {0, 1000}, true, 0.5f);
    fixture.device->pull(300, 300);
    fixture.engine->setAudio(AudioContent(second, 48000), EnvelopeSet{}, {0, 2000});
    EXPECT_EQ(fixture.device->pull(10, 10).planes[0][0], second[0][300] * 0.5f);
    EXPECT_TRUE(fixture.engine->state().program.loop);

    fixture.engine->pause();
    EXPECT_FALSE(fixture.device->isRunning());
    EXPECT_TRUE(fixture.engine->state().program.content.has_value());
    EXPECT_FALSE(fixture.engine->state().program.playing);
    EXPECT_EQ(fixture.engine->state().position.load(), 310);
    fixture.device->start();
    EXPECT_TRUE(fixture.device->pull(64, 64).silenceFlags[0]);
}

TEST(PlaybackEngine, AudiblePositionSubtractsLatencyAndHoldsAtTheRangeStart) {
    EngineOnTestDevice fixture;
    double now = 0;
    fixture.device->setClock([&now] { return now; });
    fixture.device->setPresentationLatency(0.010); // 480 frames at 48 kHz
    const AudioContent content(noisePlanes(2, 48000), 48000);
    fixture.engine->start(content, {1000, 3000}, true, 1.0f);
    EXPECT_EQ(fixture.engine->audiblePosition(), 1000);

    now = 0.025; // 1200 frames due
    fixture.device->pullUntilNow(256);
    EXPECT_EQ(fixture.engine->state().position.load(), 2200);
    EXPECT_EQ(fixture.engine->audiblePosition(), 2200 - 480);

    now = 0.045; // 960 more: wraps to 1160
    fixture.device->pullUntilNow(256);
    EXPECT_EQ(fixture.engine->state().position.load(), 1160);
    EXPECT_EQ(fixture.engine->audiblePosition(), 1000); // holds at the start, never wraps back

    fixture.engine->pause();
    EXPECT_EQ(fixture.engine->audiblePosition(), 1160);
}

TEST(PlaybackEngine, RetiresTheSixteenMostRecentEnvelopeSets) {
    EngineOnTestDevice fixture;
    std::vector<const EnvelopeSet*> stored;
    for (int call = 0; call < 20; ++call) {
        fixture.engine->setEnvelopes(EnvelopeSet{});
        stored.push_back(fixture.engine->state().program.envelope.get());
        EXPECT_LE(fixture.engine->retiredEnvelopes().size(), PlaybackEngine::retiredLimit);
    }
    // The first call replaced the empty initial set, so nothing was retired for it.
    const auto& retired = fixture.engine->retiredEnvelopes();
    ASSERT_EQ(retired.size(), 16u);
    EXPECT_EQ(retired.front().get(), stored[3]);
    EXPECT_EQ(retired.back().get(), stored[18]);
}

TEST(PlaybackEngine, ConfigurationChangeRestartsOnlyWhilePlaying) {
    EngineOnTestDevice fixture;
    fixture.engine->start(AudioContent(noisePlanes(1, 100), 48000), {0, 100}, true, 1.0f);
    EXPECT_EQ(fixture.device->startCount(), 1);

    fixture.device->simulateConfigurationChange();
    EXPECT_FALSE(fixture.device->isRunning());
    EXPECT_EQ(fixture.mainThread.runPending(), 1); // delivered on the owner's thread
    EXPECT_TRUE(fixture.device->isRunning());
    EXPECT_EQ(fixture.device->startCount(), 2);

    // A failed restart is dropped: the position simply stands still.
    fixture.device->simulateConfigurationChange();
    fixture.device->failNextStart("gone");
    EXPECT_NO_THROW(fixture.mainThread.runPending());
    EXPECT_FALSE(fixture.device->isRunning());

    fixture.engine->start(AudioContent(noisePlanes(1, 100), 48000), {0, 100}, true, 1.0f);
    fixture.engine->pause();
    const int starts = fixture.device->startCount();
    fixture.device->simulateConfigurationChange();
    fixture.mainThread.runPending();
    EXPECT_EQ(fixture.device->startCount(), starts);
    EXPECT_FALSE(fixture.device->isRunning());

    // An event still queued when the engine is gone is dropped.
    fixture.device->simulateConfigurationChange();
    fixture.engine.reset();
    EXPECT_EQ(fixture.mainThread.runPending(), 1);
}

} // namespace
} // namespace harlune
