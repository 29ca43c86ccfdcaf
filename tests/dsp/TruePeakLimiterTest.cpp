#include "dsp/TruePeakLimiter.h"

#include "base/HarluneError.h"
#include "dsp/LoudnessAnalyzer.h"
#include "dsp/LoudnessNormalization.h"
#include "dsp/LoudnessSignals.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>

namespace harlune {
namespace {

using testing::Planes;

// Renders and collects the output.
Planes limit(const AudioSource& source, FrameRange range, double preGainDB, double ceilingDBTP,
             double lookaheadMs = 2, double releaseMs = 80) {
    Planes out(static_cast<size_t>(source.channelCount()));
    TruePeakLimiter::render(source, range, preGainDB, ceilingDBTP, lookaheadMs, releaseMs, std::nullopt,
                            [&](ChunkViews chunk) {
                                for (size_t c = 0; c < chunk.size(); ++c)
                                    out[c].insert(out[c].end(), chunk[c].begin(), chunk[c].end());
                            });
    return out;
}

LoudnessResult measure(Planes planes, double rate) {
    return LoudnessAnalyzer::analyze(ArraySource(std::move(planes), rate));
}

TEST(TruePeakLimiterTest, MaterialUnderTheCeilingOnlyGetsThePreGain) {
    const auto x = testing::sine(100000, 48000, 997, 0.25);
    const ArraySource source({x, x}, 48000);
    const Planes out = limit(source, source.fullRange(), 6, -1);
    ASSERT_EQ(out[0].size(), x.size());
    const auto gain = static_cast<float>(std::pow(10.0, 6.0 / 20));
    for (size_t i = 0; i < x.size(); ++i)
        ASSERT_EQ(out[1][i], x[i] * gain) << i;
}

TEST(TruePeakLimiterTest, LoudMaterialStaysUnderTheCeiling) {
    struct Case {
        double rate;
        int channels;
        double preGainDB, ceilingDBTP, lookaheadMs;
    };
    for (const Case c : {Case{48000, 2, 12, -1, 2}, Case{44100, 1, 20, -1, 2}, Case{96000, 2, 10, -2, 5},
                         Case{192000, 1, 10, -0.3, 1}, Case{48000, 6, 15, -1, 0.1}}) {
        Planes planes;
        for (int ch = 0; ch < c.channels; ++ch)
            planes.push_back(ch % 2 ? testing::pinkNoise(static_cast<int64_t>(c.rate * 3), 3 + ch, -12)
                                    : testing::musicLike(static_cast<int64_t>(c.rate * 3), c.rate, 9 + ch));
        const ArraySource source(planes, c.rate);
        const Planes out = limit(source, source.fullRange(), c.preGainDB, c.ceilingDBTP, c.lookaheadMs);
        const LoudnessResult before = measure(planes, c.rate);
        const LoudnessResult after = measure(out, c.rate);
        EXPECT_GT(before.truePeakDBTP + c.preGainDB, c.ceilingDBTP + 3); // there was work to do
        EXPECT_LE(after.truePeakDBTP, c.ceilingDBTP) << c.rate << " Hz, " << c.channels << " channels";
        EXPECT_GT(after.truePeakDBTP, c.ceilingDBTP - 0.5); // and it was not just turned down
    }
}

TEST(TruePeakLimiterTest, AClickIsMetByARampAndReleasedSlowly) {
    // A low steady level makes the gain visible; a full-scale click at frame `at`.
    const double rate = 48000;
    const int64_t at = 30000;
    std::vector<float> x(60000, 0.01f);
    x[static_cast<size_t>(at)] = 1;
    const ArraySource source({x}, rate);
    const auto gainsOf = [&](double releaseMs) {
        const Planes out = limit(source, source.fullRange(), 0, -1, 2, releaseMs);
        std::vector<double> g(x.size());
        for (size_t i = 0; i < x.size(); ++i)
            g[i] = out[0][i] / x[i];
        return g;
    };
    const std::vector<double> g = gainsOf(80);
    const int64_t L = 96, h = 12, W = L + h + 1;
    const double ceiling = std::pow(10.0, -1.01 / 20);
    EXPECT_NEAR(g[static_cast<size_t>(at - W - L - 2)], 1, 1e-6); // untouched before the ramp
    EXPECT_LT(g[static_cast<size_t>(at - W)], 0.99);              // falling
    EXPECT_LE(g[static_cast<size_t>(at)] * 1.0, ceiling + 1e-6);  // down at the click
    // Recovery: one release time after the hold lets go, 1 - 1/e of the way back.
    const double bottom = *std::min_element(g.begin(), g.end());
    const auto released = static_cast<size_t>(at + W + L + static_cast<int64_t>(0.08 * rate));
    EXPECT_NEAR((g[released] - bottom) / (1 - bottom), 1 - std::exp(-1.0), 0.05);
    EXPECT_LT(g[released], 0.99);

    // With no release the gain is back to 1 as soon as the box has passed.
    const std::vector<double> instant = gainsOf(0);
    EXPECT_NEAR(instant[static_cast<size_t>(at + W + L + 2)], 1, 1e-6);
    EXPECT_LE(instant[static_cast<size_t>(at)], ceiling + 1e-6);
}

TEST(TruePeakLimiterTest, AllChannelsShareOneGain) {
    const double rate = 48000;
    const auto loud = testing::musicLike(48000 * 2, rate, 21);
    const auto quiet = testing::sine(48000 * 2, rate, 440, 0.05);
    const ArraySource source({loud, quiet}, rate);
    const Planes out = limit(source, source.fullRange(), 12, -1);
    double smallest = 1;
    for (size_t i = 0; i < quiet.size(); ++i) {
        if (std::fabs(quiet[i]) < 1e-3f || std::fabs(loud[i]) < 1e-3f)
            continue;
        const double gainQuiet = out[1][i] / (quiet[i] * std::pow(10.0, 12.0 / 20));
        const double gainLoud = out[0][i] / (loud[i] * std::pow(10.0, 12.0 / 20));
        ASSERT_NEAR(gainQuiet, gainLoud, 1e-4) << i;
        smallest = std::min(smallest, gainQuiet);
    }
    EXPECT_LT(smallest, 0.7); // the quiet channel was turned down with the loud one
}

TEST(TruePeakLimiterTest, ARangeRendersLikeAFileHoldingOnlyIt) {
    const double rate = 44100;
    const auto noise = testing::pinkNoise(200000, 8, -6);
    const ArraySource whole({noise}, rate);
    const FrameRange range{70000, 71500}; // much shorter than a block
    const ArraySource part({std::vector<float>(noise.begin() + range.lower, noise.begin() + range.upper)},
                           rate);
    const Planes a = limit(whole, range, 6, -1);
    const Planes b = limit(part, part.fullRange(), 6, -1);
    ASSERT_EQ(a[0].size(), 1500u);
    EXPECT_EQ(a, b);
    EXPECT_LE(measure(a, rate).truePeakDBTP, -1);
    // Ranges are clamped; an empty one emits nothing.
    EXPECT_EQ(limit(whole, {199000, 300000}, 0, -1)[0].size(), 1000u);
    EXPECT_TRUE(limit(whole, {5000, 5000}, 0, -1)[0].empty());
}

TEST(TruePeakLimiterTest, NonFiniteInputComesOutSilent) {
    auto x = testing::sine(10000, 48000, 997, 0.5);
    x[5000] = std::numeric_limits<float>::quiet_NaN();
    x[6000] = std::numeric_limits<float>::infinity();
    const Planes out = limit(ArraySource({x}, 48000), {0, 10000}, 0, -1);
    EXPECT_EQ(out[0][5000], 0.0f);
    EXPECT_EQ(out[0][6000], 0.0f);
    for (const float v : out[0])
        ASSERT_TRUE(std::isfinite(v));
    EXPECT_EQ(out[0][100], x[100]); // the rest under the ceiling, untouched
}

TEST(TruePeakLimiterTest, ProgressCancelsAndEmitErrorsPassThrough) {
    const ArraySource source({testing::pinkNoise(200000, 2)}, 48000);
    std::vector<double> seen;
    int64_t frames = 0;
    const auto record = [&](double f) {
        seen.push_back(f);
        return true;
    };
    TruePeakLimiter::render(source, source.fullRange(), 0, -1, 2, 80, FunctionRef<bool(double)>(record),
                            [&](ChunkViews chunk) { frames += static_cast<int64_t>(chunk[0].size()); });
    EXPECT_EQ(frames, 200000);
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen.front(), 0);
    EXPECT_EQ(seen.back(), 1);

    int emitted = 0;
    const auto stop = [&](double f) {
        return f < 0.3;
    };
    try {
        TruePeakLimiter::render(source, source.fullRange(), 0, -1, 2, 80, FunctionRef<bool(double)>(stop),
                                [&](ChunkViews) { ++emitted; });
        FAIL() << "not cancelled";
    } catch (const HarluneError& error) {
        EXPECT_TRUE(error.isCancelled());
    }
    EXPECT_EQ(emitted, 1);
    EXPECT_THROW(TruePeakLimiter::render(source, source.fullRange(), 0, -1, 2, 80, std::nullopt,
                                         [&](ChunkViews) { throw std::runtime_error("disk full"); }),
                 std::runtime_error);
}

TEST(LoudnessNormalizationTest, PlansFollowTheMeasurement) {
    LoudnessResult measured;
    measured.integratedLUFS = -20;
    measured.truePeakDBTP = -4;
    const LoudnessNormalization::Plan plan = LoudnessNormalization::plan(measured, -14, -1);
    EXPECT_EQ(plan, (LoudnessNormalization::Plan{6, -14, 2, true}));
    EXPECT_FALSE(LoudnessNormalization::plan(measured, -17, -1).needsLimiting); // exactly at the ceiling
    // Silence gets no gain: there is nothing to bring to the target.
    LoudnessResult silent;
    silent.integratedLUFS = silent.truePeakDBTP = -std::numeric_limits<double>::infinity();
    const LoudnessNormalization::Plan none = LoudnessNormalization::plan(silent, -14, -1);
    EXPECT_EQ(none.gainDB, 0);
    EXPECT_EQ(none.predictedIntegratedLUFS, silent.integratedLUFS);
    EXPECT_FALSE(none.needsLimiting);
}

} // namespace
} // namespace harlune
