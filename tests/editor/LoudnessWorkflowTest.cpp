// The loudness panel's figures on the model: the active measurement, the plan, the presets.
#include "EditorTestSupport.h"
#include "core/LoudnessProcessing.h"
#include "support/LibEbur128.h"
#include "support/TestAudio.h"

#include <QUndoStack>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace harlune {
namespace {

LoudnessResult measured(double lufs, double truePeak) {
    LoudnessResult result;
    result.integratedLUFS = lufs;
    result.truePeakDBTP = truePeak;
    return result;
}

class LoudnessWorkflowTest : public ::testing::Test {
protected:
    std::shared_ptr<testing::Probe> probe = std::make_shared<testing::Probe>();
    std::unique_ptr<EditorModel> model = testing::probedModel(AudioContent::silence(96000, 2, 48000), probe);
};

TEST_F(LoudnessWorkflowTest, thePlanComesFromTheActiveFigureInEitherMode) {
    EXPECT_FALSE(model->loudnessPlan());
    model->setLoudness(measured(-20, -5));
    model->setSelectionLoudness(measured(-10, -2));
    model->setTargetLUFS(-14);
    model->setCeilingDBTP(-1);
    // gain, predicted loudness, predicted true peak, limiting; exactly at the ceiling passes.
    const struct {
        AnalysisScope scope;
        bool selected;
        LoudnessAdjustMode mode;
        double gain, lufs, peak;
        bool limits;
    } cases[] = {
        {AnalysisScope::file, true, LoudnessAdjustMode::target, 6, -14, 1, true},
        {AnalysisScope::selection, false, LoudnessAdjustMode::target, 6, -14, 1, true},
        {AnalysisScope::selection, true, LoudnessAdjustMode::target, -4, -14, -6, false},
        {AnalysisScope::file, false, LoudnessAdjustMode::manual, 4, -16, -1, false},
        {AnalysisScope::selection, true, LoudnessAdjustMode::manual, 4, -6, 2, true},
    };
    for (const auto& c : cases) {
        model->setAnalysisScope(c.scope);
        model->setSelection(c.selected ? std::optional(FrameRange{0, 48000}) : std::nullopt);
        model->setAdjustMode(c.mode);
        model->setManualGainDB(4);
        const auto plan = model->loudnessPlan();
        ASSERT_TRUE(plan);
        EXPECT_DOUBLE_EQ(plan->gainDB, c.gain);
        EXPECT_DOUBLE_EQ(plan->predictedIntegratedLUFS, c.lufs);
        EXPECT_DOUBLE_EQ(plan->predictedTruePeakDBTP, c.peak);
        EXPECT_EQ(plan->needsLimiting, c.limits);
    }
    model->setLoudness(
        measured(-std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()));
    model->setSelection(std::optional<FrameRange>());
    EXPECT_FALSE(model->loudnessPlan()); // silence has none
}

TEST_F(LoudnessWorkflowTest, thePreviewGainFollowsThePlan) {
    model->setLoudness(measured(-20, -5));
    EXPECT_EQ(model->previewGain(), 1.0f); // preview off
    model->setPreviewLoudness(true);
    EXPECT_EQ(probe->lastGain, static_cast<float>(std::pow(10.0, 6.0 / 20)));
    model->setTargetLUFS(-10);
    EXPECT_EQ(probe->lastGain, static_cast<float>(std::pow(10.0, 10.0 / 20)));
    model->setAdjustMode(LoudnessAdjustMode::manual);
    EXPECT_EQ(probe->lastGain, 1.0f); // manual gain 0
    model->setManualGainDB(-3);
    EXPECT_EQ(probe->lastGain, static_cast<float>(std::pow(10.0, -3.0 / 20)));
    // In selection scope with a selection but no figure for it there is no plan.
    model->setAnalysisScope(AnalysisScope::selection);
    EXPECT_NE(probe->lastGain, 1.0f);
    model->setSelection(FrameRange{0, 48000});
    EXPECT_EQ(probe->lastGain, 1.0f);
    model->setSelectionLoudness(measured(-30, -10));
    EXPECT_EQ(probe->lastGain, static_cast<float>(std::pow(10.0, -3.0 / 20)));
    model->setAdjustMode(LoudnessAdjustMode::target);
    EXPECT_EQ(probe->lastGain, static_cast<float>(std::pow(10.0, 20.0 / 20)));
    model->setLoudness(std::nullopt); // the file's figure does not count here
    EXPECT_EQ(probe->lastGain, static_cast<float>(std::pow(10.0, 20.0 / 20)));
    model->setPreviewLoudness(false);
    EXPECT_EQ(probe->lastGain, 1.0f);
}

// Applying, with real measurements ---------------------------------------------------------------

using testing::Planes;

// Integrated loudness by libebur128, an implementation independent of ours.
double referenceLoudness(const AudioSource& source) {
    return testing::libebur128Integrated(testing::planesOf(source), source.sampleRate());
}

float samplePeak(const Planes& planes) {
    float peak = 0;
    for (const auto& plane : planes)
        for (const float x : plane)
            peak = std::max(peak, std::abs(x));
    return peak;
}

// Quiet noise with sparse loud clicks: its peaks pass any ceiling long before its loudness
// reaches a streaming target, so the limiter must work and the loop must make up for it.
Planes peakyNoise(int64_t frames) {
    Planes planes = testing::noisePlanes(2, frames, 21);
    for (auto& plane : planes) {
        for (float& x : plane)
            x *= 0.05f;
        for (size_t i = 1200; i < plane.size(); i += 2400)
            plane[i] = (i / 2400) % 2 ? 0.9f : -0.9f;
    }
    return planes;
}

class LoudnessApplyTest : public testing::MeasuredModelTest {
protected:
    void open(AudioContent content) {
        MeasuredModelTest::open(std::move(content));
        model->setUndoManager(&stack);
    }

    // Applies and waits for the job; false if none started or it never ended.
    bool apply() {
        model->applyLoudness();
        return model->busy() && idle();
    }
    bool idle() {
        return QTest::qWaitFor([this] { return !model->busy(); }, 30000);
    }

    QUndoStack stack;
};

TEST_F(LoudnessApplyTest, aTargetLandsWithinATenthOfALoudnessUnit) {
    const Planes original = peakyNoise(48000 * 3);
    open(AudioContent(original, 48000));
    model->setTargetLUFS(-14);
    model->setCeilingDBTP(-1);
    model->setPreviewLoudness(true);
    const auto plan = model->loudnessPlan();
    ASSERT_TRUE(plan && plan->needsLimiting);

    ASSERT_TRUE(apply());
    EXPECT_FALSE(model->previewLoudness());
    EXPECT_EQ(probe->lastGain, 1.0f);
    EXPECT_EQ(stack.undoText(), "Match Loudness -14.0 LUFS");
    EXPECT_NEAR(referenceLoudness(model->content()), -14, 0.1);
    EXPECT_LE(samplePeak(testing::planesOf(model->content())), std::pow(10.0f, -1.0f / 20) + 1e-4f);
    // The new content is measured in its turn.
    ASSERT_TRUE(log->waitForPublished(AnalysisKind::file, 2));
    EXPECT_NEAR(model->loudness()->integratedLUFS, -14, 0.1);

    stack.undo();
    EXPECT_EQ(testing::planesOf(model->content()), original);
}

TEST_F(LoudnessApplyTest, aManualGainOverTheCeilingGetsOneLimiterPass) {
    const AudioContent original(testing::noisePlanes(2, 48000, 5), 48000);
    open(original);
    model->setAdjustMode(LoudnessAdjustMode::manual);
    model->setManualGainDB(12);
    model->setCeilingDBTP(-1);
    const auto plan = model->loudnessPlan();
    ASSERT_TRUE(plan && plan->needsLimiting);

    ASSERT_TRUE(apply());
    EXPECT_EQ(stack.undoText(), "Loudness Gain +12.0 dB");
    const LoudnessAdjustment alone =
        adjustLoudness(original, std::nullopt, *plan, std::nullopt, -1, true, 0.1, 5);
    EXPECT_EQ(alone.stop, LoudnessAdjustStop::singlePass);
    EXPECT_EQ(alone.passes, 1);
    EXPECT_EQ(testing::planesOf(model->content()), testing::planesOf(alone.content));
    EXPECT_LE(samplePeak(testing::planesOf(model->content())), std::pow(10.0f, -1.0f / 20) + 1e-4f);
}

TEST_F(LoudnessApplyTest, inSelectionScopeOnlyTheSelectionChanges) {
    const Planes original = testing::noisePlanes(2, 48000 * 2, 8);
    open(AudioContent(original, 48000));
    model->setAnalysisScope(AnalysisScope::selection);
    model->setSelection(FrameRange{24000, 72000});
    ASSERT_TRUE(log->waitForPublished(AnalysisKind::selection));
    model->setAdjustMode(LoudnessAdjustMode::manual);
    model->setManualGainDB(-6.25);
    model->setLimitTruePeaks(false);

    ASSERT_TRUE(apply());
    EXPECT_EQ(stack.undoText(), "Loudness Gain -6.2 dB"); // printf rounds the exact half to even
    const Planes result = testing::planesOf(model->content());
    const auto gain = static_cast<float>(std::pow(10.0, -6.25 / 20));
    for (size_t c = 0; c < 2; ++c)
        for (size_t i = 0; i < original[c].size(); ++i) {
            const bool inside = i >= 24000 && i < 72000;
            const float expected = inside ? original[c][i] * gain : original[c][i];
            ASSERT_NEAR(result[c][i], expected, 1e-6f) << c << " " << i;
        }
}

TEST_F(LoudnessApplyTest, theEnvelopesAreBakedInAndClearedAfter) {
    const Planes original = testing::noisePlanes(2, 48000, 13);
    open(AudioContent(original, 48000));
    EnvelopeSet envelopes(GainEnvelope({EnvelopePoint(0, 0), EnvelopePoint(48000, -12)}));
    envelopes.setTrim(1, -6, 2);
    model->setEnvelopes(envelopes);
    ASSERT_TRUE(log->waitForPublished(AnalysisKind::envelope));
    model->setAdjustMode(LoudnessAdjustMode::manual);
    model->setManualGainDB(-3);
    model->setLimitTruePeaks(false);

    ASSERT_TRUE(apply());
    EXPECT_TRUE(model->envelopes().isEmpty());
    const Planes result = testing::planesOf(model->content());
    for (size_t c = 0; c < 2; ++c)
        for (size_t i = 0; i < original[c].size(); i += 7) {
            const double db = -12.0 * static_cast<double>(i) / 48000 + (c == 1 ? -6 : 0) - 3;
            const double expected = original[c][i] * std::pow(10.0, db / 20);
            ASSERT_NEAR(result[c][i], expected, 1e-5) << c << " " << i;
        }

    // One step back brings the curve and the untouched audio.
    stack.undo();
    EXPECT_EQ(model->envelopes(), envelopes);
    EXPECT_EQ(testing::planesOf(model->content()), original);
    stack.redo();

    // A set without effect leaves an empty one all the same.
    ASSERT_TRUE(settled());
    model->setEnvelopes(EnvelopeSet(GainEnvelope({EnvelopePoint(100, 0)})));
    ASSERT_FALSE(model->envelopes().isEmpty());
    ASSERT_TRUE(apply());
    EXPECT_EQ(model->envelopes(), EnvelopeSet{});
}

TEST_F(LoudnessApplyTest, aSilentFileHasNothingToApply) {
    open(AudioContent::silence(48000, 2, 48000)); // no plan, as the plan table shows
    model->setPreviewLoudness(true);
    model->applyLoudness();
    EXPECT_FALSE(model->busy());
    EXPECT_EQ(stack.count(), 0);
    EXPECT_TRUE(model->previewLoudness()); // untouched without a plan
}

TEST_F(LoudnessApplyTest, busyOrCancelledChangesNothing) {
    const Planes original = peakyNoise(48000 * 4);
    open(AudioContent(original, 48000));
    int alerts = 0;
    model->setAlertSound([&alerts] { ++alerts; });
    model->beginExternalBusy("Other", std::make_shared<ProgressToken>());
    model->setPreviewLoudness(true);
    model->applyLoudness();
    EXPECT_FALSE(model->previewLoudness()); // turned off before the busy check
    EXPECT_EQ(model->busy()->title, "Other");
    EXPECT_EQ(alerts, 0);
    model->endExternalBusy();

    model->applyLoudness();
    ASSERT_TRUE(model->busy());
    model->busy()->token->cancel();
    ASSERT_TRUE(idle());
    EXPECT_EQ(stack.count(), 0);
    EXPECT_EQ(testing::planesOf(model->content()), original);
}

} // namespace
} // namespace harlune
