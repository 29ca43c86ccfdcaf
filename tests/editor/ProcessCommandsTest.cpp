// The model's process, envelope and grid commands: their undo names, scope and channel
// restriction, the arithmetic of rate and time changes, and the cases where only the alert sounds.

#include "core/Processing.h"
#include "editor/EditorModel.h"
#include "editor/EditorTestSupport.h"
#include "support/TestAudio.h"

#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <numbers>
#include <random>

namespace harlune {
namespace {

using testing::drainJobs;
using testing::Planes;
using testing::rampContent;

// Two channels of distinct noise, so that a swap or a missed channel shows.
AudioContent noiseContent(int64_t frames, double rate = 48000) {
    std::mt19937 random(5);
    std::uniform_real_distribution<float> value(-0.5f, 0.5f);
    Planes planes(2, std::vector<float>(static_cast<size_t>(frames)));
    for (auto& plane : planes)
        for (float& v : plane)
            v = value(random) + 0.05f; // a little DC, for Remove DC Offset
    return AudioContent(std::move(planes), rate);
}

class ProcessCommandsTest : public testing::ModelTest {
protected:
    void SetUp() override {
        ModelTest::SetUp();
        use(noiseContent(4000));
    }
    QString lastUndoName() const { return stack.count() > 0 ? stack.text(stack.index() - 1) : QString(); }
};

TEST_F(ProcessCommandsTest, EveryCommandNamesItsUndoStep) {
    struct Case {
        std::function<void(EditorModel&)> run;
        const char* name;
    };
    const std::vector<Case> cases = {
        {[](EditorModel& m) { m.applyGain(3); }, "Gain +3.0 dB"},
        {[](EditorModel& m) { m.applyGain(-6.02); }, "Gain -6.0 dB"},
        {[](EditorModel& m) { m.normalizePeak(-1, false); }, "Normalize"},
        {[](EditorModel& m) { m.fade(FadeDirection::fadeIn, FadeShape::linear); }, "Fade In"},
        {[](EditorModel& m) { m.fade(FadeDirection::fadeOut, FadeShape::sCurve); }, "Fade Out"},
        {[](EditorModel& m) { m.silence(); }, "Silence"},
        {[](EditorModel& m) { m.reverse(); }, "Reverse"},
        {[](EditorModel& m) { m.invert(); }, "Invert Polarity"},
        {[](EditorModel& m) { m.removeDC(); }, "Remove DC Offset"},
        {[](EditorModel& m) { m.swapChannels(); }, "Swap Channels"},
        {[](EditorModel& m) { m.convertChannels(1); }, "Convert to Mono"},
        {[](EditorModel& m) { m.changeSampleRate(44100); }, "Change Sample Rate"},
        {[](EditorModel& m) { m.timePitch(1.25, -100); }, "Time & Pitch (125%, -100 ct)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        model->setSelection(FrameRange{1000, 3000}, std::nullopt);
        c.run(*model);
        ASSERT_TRUE(waitUntilIdle());
        EXPECT_EQ(stack.index(), 1);
        EXPECT_EQ(lastUndoName(), QString::fromUtf8(c.name));
        stack.undo();
    }
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(alerts, 0);

    model->convertChannels(1);
    ASSERT_TRUE(waitUntilIdle());
    model->convertChannels(2);
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(lastUndoName(), QStringLiteral("Convert to Stereo"));
}

TEST_F(ProcessCommandsTest, CommandsWithoutTheirPreconditionDoNothingQuietly) {
    model->setSelection(std::nullopt, std::nullopt);
    model->fade(FadeDirection::fadeIn, FadeShape::linear);
    model->silence();
    model->convertChannels(2);
    model->changeSampleRate(48000);
    model->changeSampleRate(0);
    model->timePitch(1, 0);
    model->timePitch(0, 100);
    drainJobs();
    EXPECT_EQ(stack.count(), 0);
    EXPECT_EQ(alerts, 0);

    use(rampContent(1000, 1));
    model->swapChannels();
    EXPECT_EQ(stack.count(), 0);
    EXPECT_EQ(alerts, 0);
}

TEST_F(ProcessCommandsTest, RestrictedCommandsLeaveTheInactiveChannelBitIdentical) {
    const std::vector<std::function<void(EditorModel&)>> commands = {
        [](EditorModel& m) { m.applyGain(-4); },
        [](EditorModel& m) { m.normalizePeak(-0.5, false); },
        [](EditorModel& m) { m.normalizePeak(-3, true); },
        [](EditorModel& m) { m.fade(FadeDirection::fadeIn, FadeShape::equalPower); },
        [](EditorModel& m) { m.silence(); },
        [](EditorModel& m) { m.reverse(); },
        [](EditorModel& m) { m.invert(); },
        [](EditorModel& m) { m.removeDC(); },
    };
    const Planes original = testing::planesOf(model->content());
    for (size_t i = 0; i < commands.size(); ++i) {
        SCOPED_TRACE(i);
        model->setSelection(FrameRange{500, 3500}, ChannelSet{0});
        commands[i](*model);
        ASSERT_TRUE(waitUntilIdle());
        const Planes after = testing::planesOf(model->content());
        EXPECT_EQ(after[1], original[1]);
        EXPECT_NE(after[0], original[0]);
        // Outside the selection the active channel is untouched too.
        EXPECT_TRUE(std::equal(after[0].begin(), after[0].begin() + 500, original[0].begin()));
        stack.undo();
    }
}

TEST_F(ProcessCommandsTest, SwapExchangesSamplesButEnvelopesKeepTheirChannels) {
    EnvelopeSet set;
    set.setTrim(0, -6, 2);
    set.edit(1) = GainEnvelope({EnvelopePoint(10, -3)});
    model->setEnvelopes(set);
    model->setSelection(FrameRange{100, 200}, std::nullopt); // ignored: the whole file swaps
    const Planes original = testing::planesOf(model->content());
    model->swapChannels();
    const Planes after = testing::planesOf(model->content());
    EXPECT_EQ(after[0], original[1]);
    EXPECT_EQ(after[1], original[0]);
    EXPECT_EQ(model->envelopes(), set);
    stack.undo();
    EXPECT_EQ(testing::planesOf(model->content()), original);
}

TEST_F(ProcessCommandsTest, TimePitchMovesSelectionMarkersAndEnvelopes) {
    use(noiseContent(3000));
    model->setMarkers(
        {testing::markerAt(500), testing::markerAt(1500), testing::markerAt(2000), testing::markerAt(2500)});
    EnvelopeSet set;
    set.master = GainEnvelope({EnvelopePoint(2500, -6)});
    model->setEnvelopes(set);
    model->setSelection(FrameRange{1000, 2000}, std::nullopt);
    model->timePitch(2, 0);
    ASSERT_TRUE(waitUntilIdle());
    ASSERT_TRUE(errors.empty()) << errors.front();
    EXPECT_EQ(model->content().frameCount(), 2500);
    EXPECT_EQ(model->selection(), (FrameRange{1000, 1500}));
    EXPECT_EQ(testing::framesOf(model->markers()), (std::vector<int64_t>{500, 1250, 1500, 2000}));
    EXPECT_EQ(model->envelopes().master.points().front().frame, 2000);

    // Pitch alone keeps the length.
    stack.undo();
    model->timePitch(1, 100);
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(model->content().frameCount(), 3000);
    EXPECT_EQ(lastUndoName(), QStringLiteral("Time & Pitch (100%, +100 ct)"));
}

TEST_F(ProcessCommandsTest, ChangeSampleRateScalesEverythingThatCountsFrames) {
    use(noiseContent(88200, 44100));
    model->setMarkers({testing::markerAt(1), testing::markerAt(44100)});
    model->setSelection(FrameRange{22050, 44100}, ChannelSet{1}); // the restriction is ignored
    model->setViewWidth(800);
    model->zoomToFit();
    const double seconds = model->framesPerPoint() / 44100;
    model->changeSampleRate(48000);
    ASSERT_TRUE(waitUntilIdle());
    ASSERT_TRUE(errors.empty()) << errors.front();
    EXPECT_EQ(model->content().sampleRate(), 48000);
    EXPECT_EQ(model->content().frameCount(), 96000);
    EXPECT_EQ(testing::framesOf(model->markers()), (std::vector<int64_t>{1, 48000}));
    EXPECT_EQ(model->selection(), (FrameRange{24000, 48000}));
    EXPECT_NEAR(model->framesPerPoint() / 48000, seconds, 1e-12);
    stack.undo();
    EXPECT_EQ(model->content().sampleRate(), 44100);
    EXPECT_NEAR(model->framesPerPoint() / 44100, seconds, 1e-12);
}

TEST_F(ProcessCommandsTest, CancelledCommandsLeaveDocumentAndStackAsTheyWere) {
    const Planes original = testing::planesOf(model->content());
    for (const auto& run : std::vector<std::function<void(EditorModel&)>>{
             [](EditorModel& m) { m.applyGain(6); }, [](EditorModel& m) { m.changeSampleRate(22050); },
             [](EditorModel& m) {
                 m.timePitch(0.8, 0);
             }}) {
        run(*model);
        ASSERT_TRUE(model->busy().has_value());
        model->busy()->token->cancel();
        ASSERT_TRUE(waitUntilIdle());
        drainJobs();
        EXPECT_EQ(stack.count(), 0);
        EXPECT_EQ(testing::planesOf(model->content()), original);
    }
    EXPECT_TRUE(errors.empty());
}

TEST_F(ProcessCommandsTest, ApplyEffectsBakesEnvelopesRunsTheChainAndStopsThePreview) {
    model->applyEffects(); // an empty rack
    EXPECT_EQ(alerts, 1);
    EXPECT_EQ(stack.count(), 0);

    EnvelopeSet set;
    set.setTrim(0, -6, 2);
    model->setEnvelopes(set);
    model->rack().add(EQSettings{.outputGainDB = -10});
    model->rack().add(EQSettings{.outputGainDB = 4});
    const Planes original = testing::planesOf(model->content());
    model->setSelection(FrameRange{1000, 2000}, ChannelSet{0});
    model->applyEffects();
    EXPECT_FALSE(model->rack().previewEnabled());
    ASSERT_TRUE(waitUntilIdle());
    ASSERT_TRUE(errors.empty()) << errors.front();
    EXPECT_EQ(lastUndoName(), QStringLiteral("Apply Parametric EQ + Parametric EQ"));
    EXPECT_TRUE(model->envelopes().isEmpty());

    // The trim is baked into the whole of channel 0, the chain's -6 dB only into the selection;
    // channel 1 is untouched.
    const Planes after = testing::planesOf(model->content());
    const double trim = std::pow(10.0, -6.0 / 20), chain = std::pow(10.0, -6.0 / 20);
    for (size_t i = 0; i < after[0].size(); i += 37) {
        const double expected = original[0][i] * trim * (i >= 1000 && i < 2000 ? chain : 1.0);
        EXPECT_NEAR(after[0][i], expected, 1e-5) << i;
    }
    EXPECT_EQ(after[1], original[1]);
    stack.undo();
    EXPECT_EQ(model->envelopes(), set);
    EXPECT_EQ(testing::planesOf(model->content()), original);

    // A disabled slot takes no part; with none enabled only the alert sounds.
    auto slots = model->rack().slots();
    for (auto& slot : slots)
        slot.isEnabled = false;
    model->rack().setSlots(slots);
    model->applyEffects();
    EXPECT_EQ(alerts, 2);
}

// Envelope commands -------------------------------------------------------------------------

TEST_F(ProcessCommandsTest, AnEnvelopeDragIsOneStepAndAClickIsNone) {
    const GainEnvelope start({EnvelopePoint(100, -3)});
    EnvelopeSet set;
    set.master = start;
    model->setEnvelopes(set);

    model->endEnvelopeEdit(start, QStringLiteral("Move Gain Point")); // pressed, not moved
    EXPECT_EQ(stack.count(), 0);

    for (const double db : {-4.0, -5.0, -6.0}) { // the drag writes live
        EnvelopeSet live = model->envelopes();
        live.master = GainEnvelope({EnvelopePoint(100, db)});
        model->setEnvelopes(live);
    }
    const EnvelopeSet dragged = model->envelopes();
    model->endEnvelopeEdit(start, QStringLiteral("Move Gain Point"));
    EXPECT_EQ(stack.count(), 1);
    EXPECT_EQ(lastUndoName(), QStringLiteral("Move Gain Point"));
    EXPECT_EQ(model->envelopes(), dragged);
    stack.undo();
    EXPECT_EQ(model->envelopes().master, start);
    stack.redo();
    EXPECT_EQ(model->envelopes(), dragged);
}

TEST_F(ProcessCommandsTest, ClearingOnAChannelTargetClearsAll) {
    EnvelopeSet set;
    set.master = GainEnvelope({EnvelopePoint(1, -2)});
    set.edit(1) = GainEnvelope({EnvelopePoint(2, -3)});
    set.setTrim(0, 4, 2);
    model->setEnvelopes(set);
    model->setEnvelopeTarget(1);
    model->clearEnvelope();
    EXPECT_TRUE(model->envelopes().isEmpty());
    EXPECT_EQ(lastUndoName(), QStringLiteral("Clear Gain Envelope"));
    model->clearEnvelope(); // nothing left: no step
    EXPECT_EQ(stack.count(), 1);

    stack.undo();
    model->removeEnvelopePoint(Uuid::random()); // a step even when no point has the id
    EXPECT_EQ(lastUndoName(), QStringLiteral("Delete Gain Point"));
    EXPECT_EQ(model->envelopes(), set);
}

TEST_F(ProcessCommandsTest, BalanceLevelsByLoudnessOnTopOfTrims) {
    EnvelopeSet set;
    set.setTrim(0, 1, 2);
    model->setEnvelopes(set);
    model->setChannelLoudness({-20, -14});
    model->balanceChannels();
    EXPECT_EQ(lastUndoName(), QStringLiteral("Balance Channels"));
    EXPECT_DOUBLE_EQ(model->envelopes().trim(0), 1 + 3);
    EXPECT_DOUBLE_EQ(model->envelopes().trim(1), -3);

    model->setChannelLoudness({-20, -std::numeric_limits<double>::infinity()});
    model->balanceChannels();
    EXPECT_EQ(alerts, 1);
    model->setChannelLoudness({-20});
    model->balanceChannels();
    EXPECT_EQ(alerts, 2);

    model->resetChannelTrims();
    EXPECT_EQ(lastUndoName(), QStringLiteral("Reset Channel Levels"));
    EXPECT_TRUE(model->envelopes().trimDB.empty());
    const int steps = stack.count();
    model->resetChannelTrims();
    EXPECT_EQ(stack.count(), steps);
}

TEST_F(ProcessCommandsTest, ApplyEnvelopeBakesTheGainOrDropsFlatPoints) {
    EnvelopeSet flat;
    flat.master = GainEnvelope({EnvelopePoint(10, 0), EnvelopePoint(20, 0)});
    model->setEnvelopes(flat);
    model->applyEnvelope();
    EXPECT_EQ(lastUndoName(), QStringLiteral("Clear Gain Envelope"));
    EXPECT_TRUE(model->envelopes().isEmpty());

    const Planes original = testing::planesOf(model->content());
    EnvelopeSet trims;
    trims.setTrim(0, -6, 2);
    model->setEnvelopes(trims);
    model->applyEnvelope();
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(lastUndoName(), QStringLiteral("Apply Gain Envelope"));
    EXPECT_TRUE(model->envelopes().isEmpty());
    const Planes after = testing::planesOf(model->content());
    const double gain = std::pow(10.0, -6.0 / 20);
    for (size_t i = 0; i < after[0].size(); i += 97)
        EXPECT_NEAR(after[0][i], original[0][i] * gain, 1e-6);
    EXPECT_EQ(after[1], original[1]);
    stack.undo();
    EXPECT_EQ(model->envelopes(), trims);
}

// Grid commands -----------------------------------------------------------------------------

TEST_F(ProcessCommandsTest, TapsAverageTheLastEightAndAPauseStartsAnew) {
    double now = 1000;
    model->setTapClock([&now] { return now; });
    model->tapTempo();
    EXPECT_FALSE(model->showGrid());
    now += 0.5;
    model->tapTempo();
    EXPECT_DOUBLE_EQ(model->grid().bpm, 120.0);
    EXPECT_TRUE(model->showGrid());
    EXPECT_FALSE(model->tempoConfidence().has_value());
    now += 3;
    model->tapTempo(); // a pause: a new count of one
    EXPECT_DOUBLE_EQ(model->grid().bpm, 120.0);
    EXPECT_EQ(model->taps().size(), 1u);

    // Nine taps: the first falls away with its interval of 0.3 s, and the last eight give seven
    // intervals, one of 1 s and six of 0.4 s.
    model->taps().clear();
    const std::vector<double> gaps = {1.0, 0.3, 1.0, 0.4, 0.4, 0.4, 0.4, 0.4, 0.4};
    for (const double gap : gaps) {
        now += gap;
        model->tapTempo();
    }
    EXPECT_EQ(model->taps().size(), 8u);
    EXPECT_DOUBLE_EQ(model->grid().bpm, 123.5);
    EXPECT_EQ(stack.count(), 0);

    // Taps faster than 400 BPM are stored as they are.
    model->taps().clear();
    model->tapTempo();
    now += 0.1;
    model->tapTempo();
    EXPECT_DOUBLE_EQ(model->grid().bpm, 600.0);
}

TEST_F(ProcessCommandsTest, ScaleAndDownbeat) {
    model->setGrid(TempoGrid(300, 4, 0));
    model->scaleTempo(2);
    EXPECT_DOUBLE_EQ(model->grid().bpm, 400);
    model->scaleTempo(0.5);
    EXPECT_DOUBLE_EQ(model->grid().bpm, 200);
    model->setCursor(777);
    model->setSelection(std::nullopt);
    model->setDownbeatAtCursor();
    EXPECT_EQ(model->grid().downbeatFrame, 777);
    model->setSelection(FrameRange{1200, 1300}, std::nullopt);
    model->setDownbeatAtCursor();
    EXPECT_EQ(model->grid().downbeatFrame, 1200);
    EXPECT_EQ(stack.count(), 0);
}

TEST_F(ProcessCommandsTest, DetectTempoSetsTheGridOnceAndSoundsTheAlertWithoutOne) {
    // Clicks at 100 BPM from frame 4800, 20 s.
    const double rate = 48000;
    Planes planes(1, std::vector<float>(static_cast<size_t>(rate * 20), 0.0f));
    for (int k = 0; 4800 + k * 28800 + 300 < static_cast<int>(planes[0].size()); ++k)
        for (int i = 0; i < 300; ++i)
            planes[0][static_cast<size_t>(4800 + k * 28800 + i)] =
                (k % 4 == 0 ? 0.9f : 0.3f) * static_cast<float>(std::sin(i * 0.3) * std::exp(-i / 60.0));
    use(AudioContent(planes, rate));
    model->detectTempo();
    model->detectTempo(); // one job
    EXPECT_TRUE(model->isDetectingTempo());
    ASSERT_TRUE(QTest::qWaitFor([this] { return !model->isDetectingTempo(); }, 20000));
    EXPECT_NEAR(model->grid().bpm, 100, 0.5);
    EXPECT_DOUBLE_EQ(model->grid().bpm, std::round(model->grid().bpm * 100) / 100);
    EXPECT_NEAR(static_cast<double>(model->grid().downbeatFrame), 4800, 0.04 * rate);
    EXPECT_TRUE(model->showGrid());
    EXPECT_TRUE(model->tempoConfidence().has_value());
    EXPECT_EQ(alerts, 0);
    EXPECT_EQ(stack.count(), 0);

    use(AudioContent(Planes(1, std::vector<float>(1000, 0.0f)), rate)); // too short for any tempo
    model->detectTempo();
    ASSERT_TRUE(QTest::qWaitFor([this] { return !model->isDetectingTempo(); }, 20000));
    EXPECT_EQ(alerts, 1);
}

} // namespace
} // namespace harlune
