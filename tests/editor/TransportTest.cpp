// The model's transport on the real playback engine and effects rack, with the test device
// pulled by hand and the 30 Hz timer fired by hand: nothing sleeps, and every tick sees exactly
// the frames the test rendered before it.
#include "base/Decibels.h"
#include "dsp/effects/EQSettings.h"
#include "editor/EditorTestSupport.h"
#include "editor/EnginePlaybackControl.h"
#include "engine/AudioDeviceError.h"
#include "engine/DeferredOutputDevice.h"
#include "engine/ManualRackScheduler.h"
#include "engine/devices/TestAudioDevice.h"
#include "support/LibEbur128.h"
#include "support/TestAudio.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>
#include <set>

namespace harlune {
namespace {

using testing::noisePlanes;
using testing::Planes;

/// Timers that run only when the test fires them. A tick may end its own timer.
class ManualTimers {
public:
    RepeatingTimerFactory factory() {
        return [this](std::chrono::microseconds interval, std::function<void()> tick) {
            lastInterval = interval;
            auto timer = std::make_unique<Timer>(*this, std::move(tick));
            live_.insert(timer.get());
            return std::unique_ptr<RepeatingTimer>(std::move(timer));
        };
    }
    /// One tick of every running timer; false when none runs.
    bool fire() {
        if (live_.empty())
            return false;
        for (const std::function<void()>& tick : ticks())
            tick();
        return true;
    }
    size_t running() const { return live_.size(); }

    std::chrono::microseconds lastInterval{0};

private:
    struct Timer final : RepeatingTimer {
        Timer(ManualTimers& timers, std::function<void()> onTick) : owner(timers), tick(std::move(onTick)) {}
        ~Timer() override { owner.live_.erase(this); }
        ManualTimers& owner;
        std::function<void()> tick;
    };
    std::vector<std::function<void()>> ticks() const {
        std::vector<std::function<void()>> all;
        for (const Timer* timer : live_)
            all.push_back(timer->tick);
        return all;
    }
    std::set<Timer*> live_;
};

std::vector<float> slice(const std::vector<float>& plane, int64_t from, int64_t to) {
    return {plane.begin() + from, plane.begin() + to};
}

/// `seconds` of a sine of `hz` per channel at the given amplitudes, followed by nothing.
Planes sines(std::vector<float> amplitudes, double hz, int64_t frames, double rate = 48000) {
    Planes planes(amplitudes.size(), std::vector<float>(static_cast<size_t>(frames)));
    for (size_t c = 0; c < planes.size(); ++c)
        for (int64_t i = 0; i < frames; ++i)
            planes[c][static_cast<size_t>(i)] = static_cast<float>(
                amplitudes[c] * std::sin(2 * std::numbers::pi * hz * static_cast<double>(i) / rate));
    return planes;
}

double peakDB(const std::vector<float>& plane, int64_t from, int64_t to) {
    float peak = 0;
    for (int64_t i = from; i < to; ++i)
        peak = std::max(peak, std::abs(plane[static_cast<size_t>(i)]));
    return 20 * std::log10(static_cast<double>(peak));
}

double rmsDB(const std::vector<float>& plane, int64_t from, int64_t to) {
    double sum = 0;
    for (int64_t i = from; i < to; ++i)
        sum += static_cast<double>(plane[static_cast<size_t>(i)]) * plane[static_cast<size_t>(i)];
    return 10 * std::log10(sum / static_cast<double>(to - from));
}

class TransportTest : public ::testing::Test {
protected:
    static constexpr double rate = 48000;
    /// Frames in one tick of the 30 Hz timer.
    static constexpr int64_t tickFrames = 1600;

    void SetUp() override { testing::clearPreferences(); }
    void TearDown() override {
        model.reset();
        testing::drainJobs();
    }

    /// A model of `content` on an engine over `output` (a fresh test device when absent).
    void open(Planes content, std::unique_ptr<AudioOutputDevice> output = nullptr) {
        planes = std::move(content);
        if (!output) {
            auto test = std::make_unique<TestAudioDevice>();
            device = test.get();
            output = std::move(test);
        }
        auto rackScheduler = std::make_unique<ManualRackScheduler>();
        scheduler = rackScheduler.get();
        EditorCollaborators collaborators;
        collaborators.player = std::make_unique<EnginePlaybackControl>(std::move(output));
        collaborators.rackScheduler = std::move(rackScheduler);
        collaborators.timers = timers.factory();
        collaborators.analysis = std::make_unique<NullAnalysisScheduler>();
        model =
            std::make_unique<EditorModel>(AudioContent(planes, rate), std::nullopt, std::move(collaborators));
        model->setPresentError([this](const std::exception& error) { errors.emplace_back(error.what()); });
    }

    /// What the device renders in `frames` frames, in callbacks of 256.
    Planes hear(int64_t frames) { return device->pull(frames, 256).planes; }
    /// One display tick: 1/30 s of audio, then the timer.
    Planes tick() {
        Planes heard = hear(tickFrames);
        timers.fire();
        return heard;
    }

    ManualTimers timers;
    ManualRackScheduler* scheduler = nullptr;
    TestAudioDevice* device = nullptr;
    Planes planes;
    std::unique_ptr<EditorModel> model;
    std::vector<std::string> errors;
};

TEST_F(TransportTest, PlayFromTheLastFrameOrLaterStartsAtTheTop) {
    open(noisePlanes(2, 4800));
    for (const int64_t cursor : {4799, 4800}) {
        model->setCursor(cursor);
        model->play(false);
        ASSERT_TRUE(model->isPlaying());
        EXPECT_EQ(model->playhead(), 0);
        EXPECT_EQ(model->playOrigin(), 0);
        EXPECT_EQ(hear(100)[1], slice(planes[1], 0, 100));
        model->stop(false);
        EXPECT_EQ(model->cursor(), cursor);
    }
    model->setCursor(4798);
    model->play(false);
    EXPECT_EQ(model->playhead(), 4798);
    const Planes heard = hear(4);
    EXPECT_EQ(slice(heard[0], 0, 2), slice(planes[0], 4798, 4800));
    EXPECT_EQ(heard[0][2], 0.0f);
    EXPECT_EQ(timers.lastInterval.count(), 33333);
}

TEST_F(TransportTest, ASelectionIsTheRangeOnlyWhenPlayedAloneOrLooped) {
    open(noisePlanes(2, 6000));
    model->setSelection(FrameRange{1000, 2000}, std::nullopt);

    model->play(false); // from the selection's start to the end of the file
    EXPECT_EQ(hear(3000)[0], slice(planes[0], 1000, 4000));
    timers.fire();
    EXPECT_EQ(model->playhead(), 4000);
    model->stop(false);

    model->play(true);
    Planes heard = hear(500);
    EXPECT_EQ(heard[1], slice(planes[1], 1000, 1500));
    // A change of the envelopes while playing leaves the range in play alone.
    model->setEnvelopes(EnvelopeSet(GainEnvelope({{0, -6.0}})));
    const auto envelope = static_cast<float>(Decibels::toLinear(-6.0));
    heard = hear(1000);
    for (size_t i = 0; i < 500; ++i)
        ASSERT_NEAR(heard[1][i], planes[1][1500 + i] * envelope, 1e-6);
    EXPECT_EQ(slice(heard[1], 500, 1000), std::vector<float>(500, 0.0f));
    timers.fire();
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(model->playhead(), 1000);

    model->setIsLooping(true);
    model->play(false);
    heard = hear(2500);
    for (size_t i = 0; i < 2500; ++i)
        ASSERT_NEAR(heard[0][i], planes[0][1000 + i % 1000] * envelope, 1e-6);
    timers.fire();
    EXPECT_TRUE(model->isPlaying());
}

TEST_F(TransportTest, TheNaturalEndBringsThePlayheadBackToWherePlayBegan) {
    open(noisePlanes(1, 48000));
    model->setCursor(40000);
    model->play(false);
    std::vector<int64_t> playheads;
    for (int ticks = 0; model->isPlaying() && ticks < 20; ++ticks) {
        tick();
        playheads.push_back(model->playhead());
    }
    EXPECT_EQ(playheads, (std::vector<int64_t>{41600, 43200, 44800, 46400, 48000, 40000}));
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(model->cursor(), 40000);
    EXPECT_EQ(timers.running(), 0u);
    EXPECT_EQ(model->meter(), MeterReading::reset(1));
}

TEST_F(TransportTest, StoppingMovesTheCursorToWhatWasHeardOnlyWithoutASelection) {
    open(noisePlanes(2, 48000));
    device->setPresentationLatency(0.01); // 480 frames
    model->togglePlayback();
    tick();
    tick();
    EXPECT_EQ(model->playhead(), 3200 - 480);
    model->togglePlayback();
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(model->cursor(), 3200 - 480);

    model->setSelection(FrameRange{10000, 20000}, std::nullopt);
    model->togglePlayback();
    tick();
    EXPECT_EQ(model->playhead(), 10000 + 1600 - 480);
    model->togglePlayback();
    EXPECT_EQ(model->cursor(), 10000);
}

TEST_F(TransportTest, SeekAndFollowScrolling) {
    open(noisePlanes(2, 48000));
    model->setViewWidth(100);
    model->setFramesPerPoint(10); // 1000 frames in view
    model->play(false);
    tick();
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 1600 - 50);
    tick(); // 3200 lies beyond 95 % of 1550...2550
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 3200 - 50);

    model->seek(30000);
    EXPECT_EQ(model->cursor(), 30000);
    EXPECT_EQ(model->playhead(), 30000);
    EXPECT_EQ(hear(100)[0], slice(planes[0], 30000, 30100));
    model->seek(-5);
    EXPECT_EQ(model->cursor(), 0);
    tick();
    EXPECT_EQ(model->playhead(), 1600);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 1550); // came back in from the left

    model->setSelection(FrameRange{10, 20}, std::nullopt);
    model->goToEnd();
    EXPECT_FALSE(model->isPlaying());
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(model->cursor(), 48000);
    model->play(false);
    model->goToStart();
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(model->cursor(), 0);
    EXPECT_EQ(model->scrollFrame(), 0);
}

TEST_F(TransportTest, LoopingToggledDuringPlayTakesEffectAtOnce) {
    open(noisePlanes(1, 4000));
    model->play(false);
    hear(3000);
    model->setIsLooping(true);
    const Planes heard = hear(2000);
    EXPECT_EQ(slice(heard[0], 0, 1000), slice(planes[0], 3000, 4000));
    EXPECT_EQ(slice(heard[0], 1000, 2000), slice(planes[0], 0, 1000));
    timers.fire();
    EXPECT_TRUE(model->isPlaying());
    model->setIsLooping(false);
    hear(3100);
    timers.fire();
    EXPECT_FALSE(model->isPlaying());
}

TEST_F(TransportTest, ARestoreWhilePlayingSwapsTheContentOrStopsOnAnotherFormat) {
    open(noisePlanes(2, 48000));
    model->play(false);
    hear(1000);
    const Planes other = noisePlanes(2, 48000, 7);
    EditState next = model->snapshot();
    next.content = AudioContent(other, rate);
    model->restore(next);
    EXPECT_TRUE(model->isPlaying());
    EXPECT_EQ(hear(100)[1], slice(other[1], 1000, 1100));

    next.content = AudioContent(noisePlanes(1, 44100), 44100);
    model->restore(next);
    EXPECT_FALSE(model->isPlaying());
    EXPECT_FALSE(device->isRunning());
    EXPECT_EQ(model->meter(), MeterReading::reset(1));
    // The next play builds the stream for the new format.
    model->play(false);
    EXPECT_EQ(device->format(), (StreamFormat{44100, 1}));
}

TEST_F(TransportTest, ADeviceThatFailsReportsAndChangesNothing) {
    open(noisePlanes(2, 4800));
    device->failNextStart("the card is gone");
    model->setCursor(100);
    model->play(false);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("the card is gone"), std::string::npos);
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(model->playhead(), 0);
    EXPECT_EQ(timers.running(), 0u);
    model->play(false);
    EXPECT_TRUE(model->isPlaying());

    // A sound system missing at launch: each play reports it until it answers.
    int attempts = 0;
    TestAudioDevice* opened = nullptr;
    open(noisePlanes(2, 4800),
         std::make_unique<DeferredOutputDevice>([&]() -> std::unique_ptr<AudioOutputDevice> {
             if (++attempts == 1)
                 throw AudioDeviceError("no server");
             auto test = std::make_unique<TestAudioDevice>();
             opened = test.get();
             return test;
         }));
    errors.clear();
    model->play(false);
    EXPECT_EQ(errors, (std::vector<std::string>{"Couldn\u2019t start the audio output: no server"}));
    EXPECT_FALSE(model->isPlaying());
    model->play(false);
    ASSERT_NE(opened, nullptr);
    EXPECT_TRUE(model->isPlaying());
    EXPECT_EQ(opened->pull(10, 10).planes[0], slice(planes[0], 0, 10));
}

TEST_F(TransportTest, MetersMatchTheWindowBeforeThePlayheadAsHeard) {
    // 997 Hz at two levels, under a master curve of -6 dB and a previewed gain of +3 dB.
    open(sines({0.5f, 0.25f}, 997, 192000));
    model->setEnvelopes(EnvelopeSet(GainEnvelope({{0, -6.0}})));
    LoudnessResult measured;
    measured.integratedLUFS = -20;
    model->setLoudness(measured);
    model->setAdjustMode(LoudnessAdjustMode::manual);
    model->setManualGainDB(3);
    model->setPreviewLoudness(true);
    const double offset = -6 + 20 * std::log10(static_cast<double>(model->previewGain()));

    model->play(false);
    Planes heard;
    for (int ticks = 0; ticks < 100; ++ticks) {
        Planes more = tick();
        if (heard.empty())
            heard.resize(more.size());
        for (size_t c = 0; c < more.size(); ++c)
            heard[c].insert(heard[c].end(), more[c].begin(), more[c].end());
    }
    const int64_t head = 100 * tickFrames;
    ASSERT_EQ(model->playhead(), head);
    const MeterReading& meter = model->meter();
    for (size_t c = 0; c < 2; ++c) {
        EXPECT_NEAR(meter.peakDB[c], peakDB(planes[c], head - 2400, head) + offset, 1e-4) << c;
        EXPECT_NEAR(meter.rmsDB[c], rmsDB(planes[c], head - 2400, head) + offset, 1e-4) << c;
        // What the device played over the same stretch reads the same.
        EXPECT_NEAR(meter.peakDB[c], peakDB(heard[c], head - 2400, head), 1e-4) << c;
    }
    const double momentary = testing::libebur128Window(planes, head, rate, 400) + offset;
    const double shortTerm = testing::libebur128Window(planes, head, rate, 3000) + offset;
    EXPECT_NEAR(meter.momentaryLUFS, momentary, 0.05);
    EXPECT_NEAR(meter.shortTermLUFS, shortTerm, 0.05);
    EXPECT_GE(meter.maxMomentaryLUFS, meter.momentaryLUFS);
    EXPECT_NEAR(meter.maxMomentaryLUFS, momentary, 0.1);
}

TEST_F(TransportTest, LevelsFallTwentyDecibelsASecondAndTheHoldHalfADecibelEveryFortyFiveTicks) {
    // One second of sine, two of silence, then the sine again.
    Planes content = sines({0.5f}, 440, 168000);
    std::fill(content[0].begin() + 48000, content[0].begin() + 144000, 0.0f);
    open(content);
    model->play(false);

    struct Reading {
        int64_t meterTick; ///< before the tick
        double peak;
        double hold;
    };
    std::vector<Reading> readings; // readings[n] after tick n + 1
    for (int n = 0; n < 92; ++n) {
        const int64_t before = model->meterTick();
        tick();
        readings.push_back({before, model->meter().peakDB[0], model->meter().holdDB[0]});
    }
    // From tick 32 on the level window holds only silence, until the sine comes back at tick 91.
    EXPECT_NEAR(readings[31 + 30].peak, readings[31].peak - 20, 1e-9);
    EXPECT_NEAR(readings[31].peak, 20 * std::log10(0.5) - 2.0 / 3.0, 0.01);
    int falls = 0;
    for (size_t n = 32; n < 90; ++n) {
        const double change = readings[n].hold - readings[n - 1].hold;
        if (readings[n].meterTick % 45 == 0) {
            EXPECT_DOUBLE_EQ(change, -0.5) << "tick " << n + 1;
            ++falls;
        } else {
            EXPECT_EQ(change, 0.0) << "tick " << n + 1;
        }
    }
    EXPECT_EQ(falls, 1); // meter tick 45; the next is due at 90
    // The sine back: the hold rises to the peak at once.
    EXPECT_LT(readings[89].hold, readings[30].hold - 0.4);
    EXPECT_EQ(readings[90].hold, readings[90].peak);
    EXPECT_NEAR(readings[90].hold, 20 * std::log10(0.5), 0.01);
}

TEST_F(TransportTest, AtTheVeryStartTheLevelsReadTheirFloorAndLoudnessStays) {
    open(noisePlanes(2, 48000));
    model->play(false);
    MeterReading seeded = model->meter();
    seeded.momentaryLUFS = -30;
    seeded.maxMomentaryLUFS = -25;
    seeded.shortTermLUFS = -28;
    model->setMeter(seeded);
    timers.fire(); // nothing rendered yet: the playhead is at 0, the window empty
    EXPECT_EQ(model->meter(), seeded);
    EXPECT_EQ(model->meter().peakDB, (std::vector<double>{-120, -120}));
    EXPECT_EQ(model->meterTick(), 1);
}

TEST_F(TransportTest, AnEQSlotIsHeardAsItsResponseSaysOnTheActiveChannelsOnly) {
    constexpr double hz = 1500;
    open(sines({0.25f, 0.25f}, hz, 48000));
    EQSettings eq;
    eq.bands = {EQBand{.type = EQBandType::peak, .frequency = 1000, .gainDB = 9, .q = 1}};
    model->rack().add(eq);
    model->setActiveChannels({0});

    model->play(false);
    const Planes heard = hear(24000);
    const double expected = eq.responseDB(std::vector<double>{hz}, rate)[0];
    ASSERT_GT(expected, 3.0);
    EXPECT_NEAR(rmsDB(heard[0], 12000, 24000) - rmsDB(planes[0], 12000, 24000), expected, 0.05);
    EXPECT_EQ(heard[1], slice(planes[1], 0, 24000)) << "an inactive channel stays dry";

    // Both channels active: the mask reaches the running chain at the next callback.
    model->setActiveChannels({0, 1});
    const Planes both = hear(24000);
    EXPECT_NEAR(rmsDB(both[1], 12000, 24000) - rmsDB(planes[1], 36000, 48000), expected, 0.05);
}

} // namespace
} // namespace harlune
