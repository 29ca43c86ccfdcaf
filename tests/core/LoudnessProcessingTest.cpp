// The loudness gain and limiter loop on content, checked with the analyzer and by hand.
#include "core/LoudnessProcessing.h"

#include "base/HarluneError.h"
#include "dsp/LoudnessAnalyzer.h"

#include <cmath>
#include <gtest/gtest.h>
#include <numbers>
#include <random>

namespace harlune {
namespace {

constexpr double rate = 48000;

// Stereo noise of about -14 LUFS with clicks near full scale: peaks well over the loudness.
AudioContent loudNoise(double seconds) {
    std::mt19937 random(3);
    std::uniform_real_distribution<float> white(-0.25f, 0.25f);
    std::vector<std::vector<float>> channels(2, std::vector<float>(static_cast<size_t>(seconds * rate)));
    for (auto& channel : channels) {
        for (float& s : channel)
            s = white(random);
        for (size_t n = 2400; n < channel.size(); n += 4800)
            channel[n] = 0.9f;
    }
    return AudioContent(std::move(channels), rate);
}

LoudnessNormalization::Plan planFor(const AudioContent& content, double target, double ceiling) {
    return LoudnessNormalization::plan(LoudnessAnalyzer::analyze(content), target, ceiling);
}

TEST(LoudnessProcessing, aPlanUnderTheCeilingIsAPlainGainWithNothingMeasured) {
    const AudioContent content = loudNoise(1);
    const auto plan = planFor(content, -30, -1);
    ASSERT_FALSE(plan.needsLimiting);
    const auto result = adjustLoudness(content, std::nullopt, plan, -30.0, -1, true, 0.1, 5);
    EXPECT_EQ(result.stop, LoudnessAdjustStop::plainGain);
    EXPECT_EQ(result.passes, 0);
    const auto factor = static_cast<float>(std::pow(10.0, plan.gainDB / 20));
    for (int64_t n = 0; n < content.frameCount(); n += 101)
        EXPECT_FLOAT_EQ(result.content.sample(1, n), content.sample(1, n) * factor);
}

// A manual gain over the ceiling gets exactly one limiter pass: LoudnessApplyTest in the editor.

TEST(LoudnessProcessing, aTargetIsReachedByRaisingTheGainUnderTheLimiter) {
    const AudioContent content = loudNoise(3);
    const auto plan = planFor(content, -5, -1);
    ASSERT_TRUE(plan.needsLimiting);
    const auto result = adjustLoudness(content, std::nullopt, plan, -5.0, -1, true, 0.1, 5);
    EXPECT_EQ(result.stop, LoudnessAdjustStop::reachedTarget);
    EXPECT_GE(result.passes, 1);
    EXPECT_GE(result.gainDB, plan.gainDB);
    const auto measured = LoudnessAnalyzer::analyze(result.content);
    EXPECT_NEAR(measured.integratedLUFS, -5, 0.1);
    EXPECT_LE(measured.truePeakDBTP, -1.0);
}

TEST(LoudnessProcessing, anUnreachableTargetGivesUpKeepingTheLastRenderAndFalseCancels) {
    const AudioContent content = loudNoise(1);
    const auto plan = planFor(content, 10, -1);
    int calls = 0;
    double last = -1;
    bool ordered = true;
    const auto progress = [&](double f) {
        ordered = ordered && f >= last;
        last = f;
        ++calls;
        return true;
    };
    const auto result = adjustLoudness(content, std::nullopt, plan, 10.0, -1, true, 0.1, 5,
                                       FunctionRef<bool(double)>(progress));
    EXPECT_TRUE(result.stop == LoudnessAdjustStop::gainLimit || result.stop == LoudnessAdjustStop::maxPasses);
    EXPECT_LE(result.passes, 5);
    EXPECT_LE(result.gainDB, plan.gainDB + 12);
    EXPECT_LE(LoudnessAnalyzer::analyze(result.content).truePeakDBTP, -1.0);
    EXPECT_TRUE(ordered);
    EXPECT_EQ(last, 1.0);
    EXPECT_GT(calls, 2);

    const auto stop = [](double) {
        return false;
    };
    try {
        adjustLoudness(content, std::nullopt, plan, 10.0, -1, true, 0.1, 5, FunctionRef<bool(double)>(stop));
        FAIL() << "not cancelled";
    } catch (const HarluneError& error) {
        EXPECT_TRUE(error.isCancelled());
    }
}

TEST(LoudnessProcessing, framesOutsideTheRangeKeepTheirSamples) {
    const AudioContent content = loudNoise(2);
    const FrameRange range{24000, 72000};
    const auto plan = planFor(content, -12, -1);
    const AudioContent result = adjustingLoudness(content, range, plan, -12.0, -1, true, 0.1, 5);
    ASSERT_EQ(result.frameCount(), content.frameCount());
    for (int64_t n : {int64_t{0}, int64_t{23999}, int64_t{72000}, int64_t{95999}})
        EXPECT_EQ(result.sample(0, n), content.sample(0, n));
    EXPECT_NEAR(LoudnessAnalyzer::analyze(result, range).integratedLUFS, -12, 0.1);
}

} // namespace
} // namespace harlune
