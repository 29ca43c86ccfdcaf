// Integrated loudness against libebur128, an independent implementation of the same standard.
// (Its loudness range and true peak are built differently, by histogram and by a different
// interpolator; those are judged against the EBU test cases instead.)

#include "dsp/LoudnessAnalyzer.h"
#include "dsp/LoudnessSignals.h"
#include "support/LibEbur128.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::libebur128Integrated;
using testing::Planes;

Planes makeSignal(const std::string& kind, int channels, double rate, double seconds) {
    const auto frames = static_cast<int64_t>(rate * seconds);
    Planes planes;
    for (int c = 0; c < channels; ++c) {
        const auto seed = static_cast<uint32_t>(17 + c);
        if (kind == "white") {
            std::vector<float> x(static_cast<size_t>(frames));
            std::mt19937 generator(seed);
            std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
            for (auto& v : x)
                v = uniform(generator);
            planes.push_back(std::move(x));
        } else if (kind == "pink") {
            planes.push_back(testing::pinkNoise(frames, seed, -18 - 2 * c));
        } else {
            planes.push_back(testing::musicLike(frames, rate, seed));
        }
    }
    return planes;
}

TEST(LoudnessReferenceTest, IntegratedLoudnessAgreesWithLibebur128) {
    for (const double rate : {44100.0, 48000.0, 96000.0}) {
        for (const int channels : {1, 2, 6}) {
            for (const std::string kind : {"white", "pink", "music"}) {
                // Long enough for the music's level sections to exercise the relative gate.
                const Planes planes = makeSignal(kind, channels, rate, kind == "music" ? 8 : 3);
                const double ours = LoudnessAnalyzer::analyze(ArraySource(planes, rate)).integratedLUFS;
                const double theirs = libebur128Integrated(planes, rate);
                EXPECT_NEAR(ours, theirs, 0.05)
                    << kind << ", " << channels << " channels at " << rate << " Hz";
            }
        }
    }
}

TEST(LoudnessReferenceTest, GatedProgrammeWithSilencesAgrees) {
    // Loud, quiet and silent stretches: both gates are at work.
    const double rate = 48000;
    Planes planes = makeSignal("music", 2, rate, 30);
    for (auto& plane : planes) {
        for (size_t i = 0; i < plane.size(); ++i) {
            const double t = static_cast<double>(i) / rate;
            if (t > 8 && t < 12)
                plane[i] = 0;
            else if (t > 20)
                plane[i] *= 0.05f;
        }
    }
    EXPECT_NEAR(LoudnessAnalyzer::analyze(ArraySource(planes, rate)).integratedLUFS,
                libebur128Integrated(planes, rate), 0.05);
}

} // namespace
} // namespace harlune
