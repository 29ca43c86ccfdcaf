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
    if (kind == "white")
        return testing::noisePlanes(channels, frames, 17); // uniform in -1...1
    Planes planes;
    for (int c = 0; c < channels; ++c) {
        const auto seed = static_cast<uint32_t>(17 + c);
        planes.push_back(kind == "pink" ? testing::pinkNoise(frames, seed, -18 - 2 * c)
                                        : testing::musicLike(frames, rate, seed));
    }
    if (kind == "gated") {
        // Loud, quiet and silent stretches: both gates are at work.
        for (auto& plane : planes)
            for (size_t i = 0; i < plane.size(); ++i) {
                const double t = static_cast<double>(i) / rate;
                plane[i] = t > 8 && t < 12 ? 0 : t > 20 ? plane[i] * 0.05f : plane[i];
            }
    }
    return planes;
}

TEST(LoudnessReferenceTest, IntegratedLoudnessAgreesWithLibebur128) {
    for (const double rate : {44100.0, 48000.0, 96000.0}) {
        for (const int channels : {1, 2, 6}) {
            for (const std::string kind : {"white", "pink", "music", "gated"}) {
                if (kind == "gated" && (rate != 48000 || channels != 2))
                    continue; // long: once
                // Long enough for the music's level sections to exercise the relative gate.
                const double seconds = kind == "gated" ? 30 : kind == "music" ? 8 : 3;
                const Planes planes = makeSignal(kind, channels, rate, seconds);
                EXPECT_NEAR(LoudnessAnalyzer::analyze(ArraySource(planes, rate)).integratedLUFS,
                            libebur128Integrated(planes, rate), 0.05)
                    << kind << ", " << channels << " channels at " << rate << " Hz";
            }
        }
    }
}

} // namespace
} // namespace harlune
