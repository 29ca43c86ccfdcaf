// The synthetic cases of EBU Tech 3341 (loudness meters, "EBU mode") and Tech 3342 (loudness
// range), built from their recipes: stereo sines at 48 kHz unless told otherwise. The tones are at
// 997 Hz, where K-weighting plus the -0.691 offset reads a full-scale stereo sine as exactly 0 LUFS
// (at 1 kHz it reads about 0.007 dB high).

#include "dsp/LoudnessAnalyzer.h"
#include "dsp/LoudnessEngine.h"
#include "dsp/LoudnessSignals.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace harlune {
namespace {

using testing::Planes;
using testing::Tone;
using testing::toneSequence;

constexpr double rate = 48000;
constexpr double silence = -std::numeric_limits<double>::infinity();

LoudnessResult measure(Planes planes, double sampleRate = rate) {
    return LoudnessAnalyzer::analyze(ArraySource(std::move(planes), sampleRate));
}

// Curve values from `fromSeconds` on (hop 0.1 s, value i ends at (i + 1) x 0.1 s).
std::vector<float> curveFrom(const std::vector<float>& curve, double fromSeconds, double untilSeconds = 1e9) {
    const auto first = static_cast<size_t>(std::llround(fromSeconds * 10)) - 1;
    const auto last = std::min(curve.size(), static_cast<size_t>(std::llround(untilSeconds * 10)));
    return {curve.begin() + static_cast<ptrdiff_t>(std::min(first, curve.size())),
            curve.begin() + static_cast<ptrdiff_t>(std::max(first, last))};
}

void expectAll(const std::vector<float>& values, double expected, double tolerance, const char* what) {
    ASSERT_FALSE(values.empty()) << what;
    for (size_t i = 0; i < values.size(); ++i)
        ASSERT_NEAR(values[i], expected, tolerance) << what << " value " << i;
}

TEST(EBUTech3341, Cases1And2SteadyTonesReadTheirLevelOnEveryMeter) {
    for (const double level : {-23.0, -33.0}) {
        const LoudnessResult r = measure(toneSequence({{20, level}}, 2, rate));
        EXPECT_NEAR(r.integratedLUFS, level, 0.1);
        // Once each window is inside the tone (the filters settle within a few ms).
        expectAll(curveFrom(r.momentary, 0.4), level, 0.1, "momentary");
        expectAll(curveFrom(r.shortTerm, 3.0), level, 0.1, "short-term");
        EXPECT_NEAR(r.maxMomentaryLUFS, level, 0.1);
        EXPECT_NEAR(r.maxShortTermLUFS, level, 0.1);
    }
}

TEST(EBUTech3341, Cases3To5GatingKeepsTheMainPart) {
    EXPECT_NEAR(measure(toneSequence({{10, -36}, {60, -23}, {10, -36}}, 2, rate)).integratedLUFS, -23, 0.1);
    EXPECT_NEAR(measure(toneSequence({{10, -72}, {10, -36}, {60, -23}, {10, -36}, {10, -72}}, 2, rate))
                    .integratedLUFS,
                -23, 0.1);
    EXPECT_NEAR(measure(toneSequence({{20, -26}, {20.1, -20}, {20, -26}}, 2, rate)).integratedLUFS, -23, 0.1);
}

TEST(EBUTech3341, Case6FiveChannelsWeighTheSurrounds) {
    // L, R, C, Ls, Rs at -28, -28, -24, -30, -30 dBFS.
    Planes planes;
    for (const double level : {-28.0, -28.0, -24.0, -30.0, -30.0})
        planes.push_back(toneSequence({{20, level}}, 1, rate)[0]);
    EXPECT_NEAR(measure(std::move(planes)).integratedLUFS, -23, 0.1);
}

TEST(EBUTech3341, Case9ShortTermIsSteadyOverAlternatingTones) {
    std::vector<Tone> tones;
    for (int i = 0; i < 5; ++i) {
        tones.push_back({1.34, -20});
        tones.push_back({1.66, -30});
    }
    const LoudnessResult r = measure(toneSequence(tones, 2, rate));
    expectAll(curveFrom(r.shortTerm, 3.0), -23, 0.1, "short-term");
}

TEST(EBUTech3341, Case10MaximumShortTermOfA3SecondBurstAtAnyOffset) {
    // A 3 s burst at -23 LUFS after silence of varied length: the 100 ms hop misses at most 50 ms
    // of it, which costs 0.07 dB.
    for (int offsetMs = 0; offsetMs < 1000; offsetMs += 70) {
        const LoudnessResult r =
            measure(toneSequence({{offsetMs / 1000.0, silence}, {3, -23}, {1, silence}}, 2, rate));
        EXPECT_NEAR(r.maxShortTermLUFS, -23, 0.1) << "offset " << offsetMs << " ms";
    }
}

TEST(EBUTech3341, Case11EachBurstReadsItsOwnLevel) {
    // Bursts of 3 s at -38 ... -19 LUFS, 2 s apart, each starting at its own offset in the grid.
    std::vector<Tone> tones;
    std::vector<double> ends;
    double t = 0;
    for (int i = 0; i < 20; ++i) {
        const double gap = 2 + 0.013 * i;
        tones.push_back({gap, silence});
        tones.push_back({3, -38.0 + i});
        t += gap + 3;
        ends.push_back(t);
    }
    tones.push_back({1, silence});
    const LoudnessResult r = measure(toneSequence(tones, 2, rate));
    for (int i = 0; i < 20; ++i) {
        // The largest short-term value within the burst and the second after it.
        const std::vector<float> around =
            curveFrom(r.shortTerm, ends[static_cast<size_t>(i)] - 2.5, ends[static_cast<size_t>(i)] + 1);
        EXPECT_NEAR(*std::max_element(around.begin(), around.end()), -38.0 + i, 0.1) << "burst " << i;
    }
}

TEST(EBUTech3341, Case12MomentaryIsSteadyOverAlternatingTones) {
    std::vector<Tone> tones;
    for (int i = 0; i < 25; ++i) {
        tones.push_back({0.18, -20});
        tones.push_back({0.22, -30});
    }
    const LoudnessResult r = measure(toneSequence(tones, 2, rate));
    expectAll(curveFrom(r.momentary, 0.4), -23, 0.1, "momentary");
}

// Cases 13 and 14 ask for the maximum momentary loudness of 400 ms bursts at any offset to 1 ms.
// With windows every 100 ms, a burst that starts between two borders is never wholly inside one
// window: this records what the design gives instead, up to 0.6 dB low at the worst offset.
TEST(EBUTech3341, Cases13And14MomentaryMaximaOfShortBurstsAreBoundedByTheHop) {
    double worst = 0;
    for (int offsetMs = 0; offsetMs < 100; offsetMs += 10) {
        const LoudnessResult r =
            measure(toneSequence({{0.5 + offsetMs / 1000.0, silence}, {0.4, -23}, {0.5, silence}}, 2, rate));
        const double error = r.maxMomentaryLUFS + 23;
        worst = std::min(worst, error);
        EXPECT_LE(error, 0.1);
        // Covered fraction of the burst at least 350 ms of 400.
        EXPECT_GE(error, 10 * std::log10(0.35 / 0.4) - 0.05) << "offset " << offsetMs << " ms";
    }
    RecordProperty("worstMomentaryErrorDB", std::to_string(worst));
    EXPECT_LT(worst, -0.3); // the limit of a 100 ms hop shows
}

struct TruePeakCase {
    const char* name;
    double sampleRate;
    double hz;
    double amplitudeDB; // peak of the continuous sine
    double phaseDegrees;
    double expectedDBTP;
};

// Sines whose crests fall between samples by the given phase; the expected value is the crest.
// One second each, faded in and out over 20 ms: a sine switched on at full level would ring in
// the interpolator like any step.
TEST(EBUTech3341, Cases15To23TruePeakOfSinesBetweenSamples) {
    const TruePeakCase cases[] = {
        {"15: fs/4, crests on samples", 48000, 12000, -6, 90, -6},
        {"16: fs/4, crests between samples", 48000, 12000, -6, 45, -6},
        {"17: fs/6, crests between samples", 48000, 8000, -6, 60, -6},
        {"18: fs/8, crests between samples", 48000, 6000, -6, 67.5, -6},
        {"19: fs/4 at +3 dBTP, samples at 0 dBFS", 48000, 12000, 3, 45, 3},
        {"20: 44.1 kHz, fs/4", 44100, 11025, 0, 45, 0},
        {"21: 44.1 kHz, 997 Hz", 44100, 997, 0, 17, 0},
        {"22: 96 kHz, 2x, fs/8", 96000, 12000, 0, 67.5, 0},
        {"23: 192 kHz, no oversampling, fs/16", 192000, 12000, 0, 11.25, 0},
    };
    for (const TruePeakCase& c : cases) {
        const auto frames = static_cast<int64_t>(c.sampleRate); // one second
        const auto wave = testing::sine(frames, c.sampleRate, c.hz, std::pow(10.0, c.amplitudeDB / 20),
                                        c.phaseDegrees, 0.02);
        const LoudnessResult r = measure({wave, wave}, c.sampleRate);
        EXPECT_LE(r.truePeakDBTP, c.expectedDBTP + 0.2) << c.name;
        EXPECT_GE(r.truePeakDBTP, c.expectedDBTP - 0.4) << c.name;
    }
}

TEST(EBUTech3342, Cases1To4LoudnessRangeOfToneSteps) {
    EXPECT_NEAR(measure(toneSequence({{20, -20}, {20, -30}}, 2, rate)).loudnessRangeLU, 10, 1);
    EXPECT_NEAR(measure(toneSequence({{20, -20}, {20, -15}}, 2, rate)).loudnessRangeLU, 5, 1);
    EXPECT_NEAR(measure(toneSequence({{20, -40}, {20, -20}}, 2, rate)).loudnessRangeLU, 20, 1);
    EXPECT_NEAR(measure(toneSequence({{20, -50}, {20, -35}, {20, -20}, {20, -35}, {20, -50}}, 2, rate))
                    .loudnessRangeLU,
                15, 1);
}

} // namespace
} // namespace harlune
