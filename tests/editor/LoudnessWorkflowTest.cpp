// The loudness panel's figures on the model: the active measurement, the plan, the presets.
#include "EditorTestSupport.h"
#include "editor/LoudnessPreset.h"

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

TEST_F(LoudnessWorkflowTest, theSelectionCountsOnlyInSelectionScopeWithASelection) {
    model->setLoudness(measured(-20, -5));
    model->setSelectionLoudness(measured(-10, -2));
    EXPECT_EQ(model->activeLoudness()->integratedLUFS, -20);
    model->setAnalysisScope(AnalysisScope::selection);
    EXPECT_EQ(model->activeLoudness()->integratedLUFS, -20); // no selection yet
    model->setSelection(FrameRange{0, 48000});
    EXPECT_EQ(model->activeLoudness()->integratedLUFS, -10);
    model->setAnalysisScope(AnalysisScope::file);
    EXPECT_EQ(model->activeLoudness()->integratedLUFS, -20);
}

TEST_F(LoudnessWorkflowTest, thePlanInTargetAndManualModes) {
    EXPECT_FALSE(model->loudnessPlan());
    model->setLoudness(measured(-20, -5));
    model->setTargetLUFS(-14);
    model->setCeilingDBTP(-1);
    auto plan = model->loudnessPlan();
    ASSERT_TRUE(plan);
    EXPECT_DOUBLE_EQ(plan->gainDB, 6);
    EXPECT_DOUBLE_EQ(plan->predictedIntegratedLUFS, -14);
    EXPECT_DOUBLE_EQ(plan->predictedTruePeakDBTP, 1);
    EXPECT_TRUE(plan->needsLimiting);

    model->setAdjustMode(LoudnessAdjustMode::manual);
    model->setManualGainDB(4);
    plan = model->loudnessPlan();
    ASSERT_TRUE(plan);
    EXPECT_DOUBLE_EQ(plan->gainDB, 4);
    EXPECT_DOUBLE_EQ(plan->predictedIntegratedLUFS, -16);
    EXPECT_DOUBLE_EQ(plan->predictedTruePeakDBTP, -1);
    EXPECT_FALSE(plan->needsLimiting); // exactly at the ceiling passes
}

TEST_F(LoudnessWorkflowTest, aSilentMeasurementHasNoPlan) {
    model->setLoudness(
        measured(-std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()));
    EXPECT_FALSE(model->loudnessPlan());
}

TEST_F(LoudnessWorkflowTest, thePresetsInTheirOrder) {
    const auto presets = loudnessPresets();
    ASSERT_EQ(presets.size(), 8u);
    EXPECT_EQ(presets[0], (LoudnessPreset{"Spotify / YouTube / Tidal", -14, -1}));
    EXPECT_EQ(presets[4], (LoudnessPreset{"Audiobook (ACX)", -20, -3}));
    EXPECT_EQ(presets[7], (LoudnessPreset{"Club / Loud Master", -9, -0.3}));
    EXPECT_EQ(presets[6].id(), "ATSC A/85 (US TV)");
}

} // namespace
} // namespace harlune
