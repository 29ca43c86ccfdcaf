// Signal statistics against double-precision sums, the rule of the first largest peak, and the
// edges: empty and clamped ranges, cancellation.
#include "dsp/SignalAnalysis.h"

#include "base/HarluneError.h"

#include <cmath>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace harlune {
namespace {

TEST(SignalAnalysisTest, RMSAndMeanEqualDoublePrecisionSumsAcrossChunks) {
    std::mt19937 generator(11);
    std::uniform_real_distribution<float> noise(-0.5f, 0.5f);
    std::vector<std::vector<float>> planes(2, std::vector<float>(150000));
    for (auto& plane : planes)
        for (float& x : plane)
            x = noise(generator) + (&plane == &planes[0] ? 0.25f : -0.01f);
    const ArraySource source(planes, 48000);
    const FrameRange range{1234, 140000};
    const SignalStats stats = SignalAnalysis::stats(source, range);
    ASSERT_EQ(stats.channelCount(), 2);
    for (size_t c = 0; c < 2; ++c) {
        double sum = 0;
        double squares = 0;
        float peak = 0;
        for (int64_t n = range.lower; n < range.upper; ++n) {
            const double x = planes[c][static_cast<size_t>(n)];
            sum += x;
            squares += x * x;
            peak = std::max(peak, std::fabs(planes[c][static_cast<size_t>(n)]));
        }
        const auto length = static_cast<double>(range.length());
        EXPECT_NEAR(stats.dcOffset[c], sum / length, 1e-7);
        EXPECT_NEAR(stats.rms[c], std::sqrt(squares / length), 1e-7);
        EXPECT_EQ(stats.peak[c], peak);
        EXPECT_EQ(std::fabs(planes[c][static_cast<size_t>(stats.peakFrame[c])]), peak);
    }
}

TEST(SignalAnalysisTest, ThePeakFrameIsTheFirstLargestMagnitude) {
    std::vector<float> x(200000, 0.1f);
    x[50] = 0.9f;      // before the range
    x[300] = -0.8f;    // the first of the largest, negative
    x[400] = 0.8f;     // as large, later in the chunk
    x[140000] = 0.8f;  // as large, in a later chunk
    x[199990] = -0.7f; // smaller
    const ArraySource source({x}, 48000);
    const SignalStats stats = SignalAnalysis::stats(source, {100, 200000});
    EXPECT_EQ(stats.peak[0], 0.8f);
    EXPECT_EQ(stats.peakFrame[0], 300);
    // A larger one in a later chunk wins.
    x[150000] = -0.85f;
    const SignalStats later = SignalAnalysis::stats(ArraySource({x}, 48000), {100, 200000});
    EXPECT_EQ(later.peak[0], 0.85f);
    EXPECT_EQ(later.peakFrame[0], 150000);
}

TEST(SignalAnalysisTest, EmptyAndOutsideRangesGiveZeros) {
    const ArraySource source({std::vector<float>(1000, 0.5f), std::vector<float>(1000, -0.5f)}, 48000);
    const SignalStats zeros{{0, 0}, {0, 0}, {0, 0}, {0, 0}};
    EXPECT_EQ(SignalAnalysis::stats(source, {400, 400}), zeros);
    EXPECT_EQ(SignalAnalysis::stats(source, {5000, 6000}), zeros);
    // Clamped: the part inside counts.
    const SignalStats clamped = SignalAnalysis::stats(source, {-100, 100});
    EXPECT_DOUBLE_EQ(clamped.dcOffset[0], 0.5);
    EXPECT_DOUBLE_EQ(clamped.dcOffset[1], -0.5);
    EXPECT_DOUBLE_EQ(clamped.rms[1], 0.5);
}

TEST(SignalAnalysisTest, AProgressAnswerOfFalseCancels) {
    const ArraySource source({std::vector<float>(300000, 0.5f)}, 48000);
    int calls = 0;
    auto stopAtSecond = [&calls](double) {
        return ++calls < 2;
    };
    try {
        SignalAnalysis::stats(source, source.fullRange(), stopAtSecond);
        FAIL() << "not cancelled";
    } catch (const HarluneError& error) {
        EXPECT_TRUE(error.isCancelled());
    }
}

} // namespace
} // namespace harlune
