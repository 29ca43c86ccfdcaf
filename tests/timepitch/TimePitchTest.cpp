#include "timepitch/TimePitch.h"

#include "base/HarluneError.h"
#include "dsp/LoudnessSignals.h"
#include "support/TestAudio.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <numbers>
#include <string>
#include <vector>

namespace harlune {
namespace {

using testing::Planes;
using Engine = TimePitch::Engine;

constexpr Engine engines[] = {Engine::finer, Engine::faster};

std::string nameOf(Engine engine) {
    return engine == Engine::finer ? "R3" : "R2";
}

Planes rendered(const AudioSource& source, double rate, double cents, Engine engine,
                std::optional<FrameRange> range = std::nullopt) {
    Planes out(static_cast<size_t>(source.channelCount()));
    TimePitch::render(
        source, range, rate, cents, std::nullopt,
        [&](ChunkViews chunk) {
            EXPECT_LE(chunk[0].size(), static_cast<size_t>(TimePitch::chunkFrames));
            EXPECT_GT(chunk[0].size(), 0u);
            for (size_t c = 0; c < chunk.size(); ++c)
                out[c].insert(out[c].end(), chunk[c].begin(), chunk[c].end());
        },
        engine);
    return out;
}

/// The frequency of the strongest component of a stretch of `length` frames near `expected` Hz:
/// the peak of its Hann-windowed spectrum, searched on a fine grid in double precision. A stretcher
/// may wobble the phase from window to window; this reads the pitch that is heard.
double frequencyOf(const std::vector<float>& signal, size_t from, size_t length, double rate,
                   double expected) {
    std::vector<double> windowed(length);
    for (size_t i = 0; i < length; ++i)
        windowed[i] = signal[from + i] * (0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(i) /
                                                               static_cast<double>(length)));
    const auto magnitude = [&](double hz) {
        const std::complex<double> turn = std::polar(1.0, -2 * std::numbers::pi * hz / rate);
        std::complex<double> phasor = 1, sum = 0;
        for (const double x : windowed) {
            sum += x * phasor;
            phasor *= turn;
        }
        return std::abs(sum);
    };
    double best = expected;
    for (double span = 20, grid = 1; grid >= 0.01; span = grid * 2, grid /= 10) {
        const double centre = best;
        double bestMagnitude = -1;
        for (double hz = centre - span; hz <= centre + span; hz += grid)
            if (const double m = magnitude(hz); m > bestMagnitude)
                bestMagnitude = m, best = hz;
    }
    return best;
}

std::string failure(double rate, double cents) {
    const ArraySource source({std::vector<float>(1000)}, 44100);
    try {
        TimePitch::render(source, std::nullopt, rate, cents, std::nullopt, [](ChunkViews) {});
    } catch (const HarluneError& error) {
        EXPECT_EQ(error.kind(), HarluneError::Kind::unsupportedFormat);
        return error.detail();
    }
    return "";
}

TEST(TimePitchTest, RateAndPitchBoundsAndTheirTexts) {
    EXPECT_EQ(failure(0.25, 0), "");
    EXPECT_EQ(failure(4, 2400), "");
    EXPECT_EQ(failure(1, -2400), "");
    EXPECT_EQ(failure(0.2499, 0), "Tempo rate 0.2499 is outside 0.25...4.0");
    EXPECT_EQ(failure(4.01, 0), "Tempo rate 4.01 is outside 0.25...4.0");
    EXPECT_EQ(failure(NAN, 0), "Tempo rate nan is outside 0.25...4.0");
    EXPECT_EQ(failure(1, 2400.5), "Pitch shift 2400.5 cents is outside -2400.0...2400.0");
    EXPECT_EQ(failure(1, -2500), "Pitch shift -2500.0 cents is outside -2400.0...2400.0");
    EXPECT_EQ(failure(1, INFINITY), "Pitch shift inf cents is outside -2400.0...2400.0");
}

TEST(TimePitchTest, TempoKeepsThePitchAndPitchKeepsTheLength) {
    struct Case {
        double seconds, rate, cents;
        size_t expectedFrames;
        double expectedHz;
    };
    // 10 s at 125 % tempo are exactly 8 s, still at 440 Hz; an octave up keeps 3 s and reads 880 Hz.
    for (const Case c : {Case{10, 1.25, 0, 352'800, 440}, Case{3, 1, 1200, 3 * 44'100, 880}}) {
        const ArraySource source({testing::sine(static_cast<int64_t>(c.seconds * 44100), 44100, 440, 0.5)},
                                 44100);
        for (const Engine engine : engines) {
            const auto out = rendered(source, c.rate, c.cents, engine);
            ASSERT_EQ(out[0].size(), c.expectedFrames) << nameOf(engine);
            EXPECT_NEAR(frequencyOf(out[0], 44100, 88200, 44100, c.expectedHz), c.expectedHz, 1.0)
                << nameOf(engine) << " at " << c.rate << ", " << c.cents << " cents";
        }
    }
}

TEST(TimePitchTest, LengthIsExactWhateverTheRateOrRange) {
    const ArraySource source(testing::noisePlanes(2, 30001, 2), 48000);
    for (const Engine engine : engines) {
        EXPECT_EQ(rendered(source, 2, 0, engine, FrameRange{0, 1000})[0].size(), 500u);
        for (const double rate : {0.25, 0.7, 1.0, 3.3, 4.0}) {
            const auto out = rendered(source, rate, rate == 1.0 ? 100 : 0, engine, FrameRange{1001, 40000});
            EXPECT_EQ(static_cast<int64_t>(out[0].size()), TimePitch::outputFrameCount(29000, rate))
                << nameOf(engine) << " at " << rate;
            EXPECT_EQ(out[1].size(), out[0].size());
        }
    }
    // Six channels go through one stretcher.
    const auto six =
        rendered(ArraySource(testing::noisePlanes(6, 20000, 4), 44100), 1.5, -300, Engine::finer);
    ASSERT_EQ(six.size(), 6u);
    for (const auto& channel : six)
        EXPECT_EQ(static_cast<int64_t>(channel.size()), TimePitch::outputFrameCount(20000, 1.5));
    // Tiny inputs: 3 frames at rate 4 give one; one frame at rate 4 gives none, as does no range.
    EXPECT_EQ(rendered(source, 4, 0, Engine::finer, FrameRange{0, 3})[0].size(), 1u);
    EXPECT_TRUE(rendered(source, 4, 0, Engine::finer, FrameRange{0, 1})[0].empty());
    EXPECT_TRUE(rendered(source, 1.5, 0, Engine::finer, FrameRange{500, 500})[0].empty());
}

TEST(TimePitchTest, StereoChannelsStayAligned) {
    // An impulse in both channels over different quiet noise comes out at the same frame in both.
    auto planes = testing::noisePlanes(2, 96000, 11);
    for (auto& plane : planes) {
        for (auto& x : plane)
            x *= 0.001f;
        plane[40000] = 1.0f;
    }
    const ArraySource source(planes, 48000);
    const auto peakOf = [](const std::vector<float>& channel) {
        return std::max_element(channel.begin(), channel.end(),
                                [](float a, float b) { return std::abs(a) < std::abs(b); }) -
               channel.begin();
    };
    for (const Engine engine : engines)
        for (const double rate : {0.8, 1.25}) {
            const auto out = rendered(source, rate, 0, engine);
            EXPECT_EQ(peakOf(out[0]), peakOf(out[1])) << nameOf(engine) << " at " << rate;
            EXPECT_NEAR(static_cast<double>(peakOf(out[0])), 40000 / rate, 512)
                << nameOf(engine) << " at " << rate;
        }
}

TEST(TimePitchTest, ProgressFalseCancels) {
    const ArraySource source({testing::sine(44100, 44100, 440, 0.5)}, 44100);
    for (const Engine engine : engines)
        for (const int allowedCalls : {0, 20}) {
            int calls = 0;
            int64_t emitted = 0;
            double last = -1;
            try {
                TimePitch::render(
                    source, std::nullopt, 0.9, 0,
                    [&](double fraction) {
                        EXPECT_GE(fraction, last);
                        last = fraction;
                        return calls++ < allowedCalls;
                    },
                    [&](ChunkViews chunk) { emitted += static_cast<int64_t>(chunk[0].size()); }, engine);
                ADD_FAILURE() << "not cancelled";
            } catch (const HarluneError& error) {
                EXPECT_TRUE(error.isCancelled());
            }
            EXPECT_EQ(calls, allowedCalls + 1);
            EXPECT_LT(emitted, TimePitch::outputFrameCount(44100, 0.9));
            if (allowedCalls == 0) {
                EXPECT_EQ(emitted, 0);
            }
        }
}

} // namespace
} // namespace harlune
