// The reverb against closed forms: decay times measured by Schroeder integration of impulse
// responses (broadband and per octave), the line lengths against a plain prime search, and the
// edge cases of width, mix, size and channel count.
#include "dsp/effects/ReverbProcessor.h"

#include "base/HarluneError.h"

#include <array>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

namespace harlune {
namespace {

using Planes = std::vector<std::vector<float>>;

void run(ReverbProcessor& reverb, Planes& planes, int block = 4096) {
    std::array<float*, 8> pointers{};
    for (size_t c = 0; c < planes.size(); ++c)
        pointers.at(c) = planes[c].data();
    const ChannelSpan whole(ChannelPointers(pointers).first(planes.size()),
                            static_cast<int>(planes[0].size()));
    for (int done = 0; done < whole.frameCount(); done += block)
        reverb.process(whole.frames(done, std::min(block, whole.frameCount() - done)));
}

// The responses of all eight outputs, which are decorrelated: their energies summed make a
// steadier decay curve than any one of them.
Planes impulseResponses(const ReverbSettings& settings, double rate, double seconds) {
    ReverbProcessor reverb;
    reverb.apply(settings);
    reverb.prepare(rate, 8, 4096);
    Planes planes(8, std::vector<float>(static_cast<size_t>(seconds * rate)));
    for (auto& plane : planes)
        plane[0] = 1;
    run(reverb, planes);
    return planes;
}

// A band-pass biquad (constant peak gain), run twice in cascade: an octave band.
std::vector<float> octaveBand(const std::vector<float>& signal, double centre, double rate) {
    const double w = 2 * std::numbers::pi * centre / rate;
    const double alpha = std::sin(w) / (2 * std::numbers::sqrt2);
    const double a0 = 1 + alpha;
    const double b0 = alpha / a0, a1 = -2 * std::cos(w) / a0, a2 = (1 - alpha) / a0;
    std::vector<float> out = signal;
    for (int pass = 0; pass < 2; ++pass) {
        double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
        for (float& s : out) {
            const double x = s;
            const double y = b0 * x - b0 * x2 - a1 * y1 - a2 * y2;
            x2 = x1;
            x1 = x;
            y2 = y1;
            y1 = y;
            s = static_cast<float>(y);
        }
    }
    return out;
}

// T30: the least-squares slope of the backward-integrated energy (summed over the responses)
// between -5 and -35 dB, extended to 60 dB.
double t30(const Planes& responses, double rate) {
    const size_t frames = responses[0].size();
    std::vector<double> energy(frames + 1, 0.0);
    for (size_t i = frames; i-- > 0;) {
        energy[i] = energy[i + 1];
        for (const auto& response : responses)
            energy[i] += double{response[i]} * response[i];
    }
    double sx = 0, sy = 0, sxx = 0, sxy = 0, n = 0;
    for (size_t i = 0; i < frames; ++i) {
        const double level = 10 * std::log10(energy[i] / energy[0] + 1e-300);
        if (level > -5 || level < -35)
            continue;
        const double t = static_cast<double>(i) / rate;
        sx += t;
        sy += level;
        sxx += t * t;
        sxy += t * level;
        n += 1;
    }
    const double slope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
    return -60 / slope;
}

Planes octaveBands(const Planes& responses, double centre, double rate) {
    Planes bands;
    for (const auto& response : responses)
        bands.push_back(octaveBand(response, centre, rate));
    return bands;
}

constexpr double rate = 44100;
constexpr double octaves[] = {250, 500, 1000, 2000, 4000};

TEST(ReverbProcessor, DecayTimeWithoutDampingIsTheSettingBroadbandAndPerOctave) {
    struct Case {
        double decay;
        double size;
    };
    for (const Case c : {Case{0.5, 0.0}, Case{0.5, 1.0}, Case{2.0, 0.5}, Case{5.0, 0.0}, Case{5.0, 1.0}}) {
        SCOPED_TRACE("decay " + std::to_string(c.decay) + " s, size " + std::to_string(c.size));
        const ReverbSettings settings{
            .preDelayMs = 0, .decaySeconds = c.decay, .size = c.size, .damping = 0, .lowCutHz = 20, .mix = 1};
        const Planes response = impulseResponses(settings, rate, 1.25 * c.decay + 0.2);
        EXPECT_NEAR(t30(response, rate), c.decay, 0.02 * c.decay) << "broadband";
        for (const double centre : octaves)
            EXPECT_NEAR(t30(octaveBands(response, centre, rate), rate), c.decay, 0.05 * c.decay)
                << "octave at " << centre << " Hz";
    }
}

TEST(ReverbProcessor, DampingShortensTheHighsAndKeepsTheLows) {
    const double decay = 2.0;
    const ReverbSettings settings{
        .preDelayMs = 0, .decaySeconds = decay, .size = 0.6, .damping = 0.7, .lowCutHz = 20, .mix = 1};
    const Planes response = impulseResponses(settings, rate, 1.25 * decay + 0.2);
    for (const double centre : {125.0, 250.0})
        EXPECT_NEAR(t30(octaveBands(response, centre, rate), rate), decay, 0.05 * decay)
            << "octave at " << centre << " Hz";
    // At 8 kHz the decay is ρT = 0.15^0.7 T; an octave band below it decays a little slower.
    const double high = t30(octaveBands(response, 8000, rate), rate);
    EXPECT_LT(high, 0.5 * decay);
    EXPECT_GT(high, 0.8 * std::pow(0.15, 0.7) * decay);
}

bool isPrime(int n) {
    for (int d = 2; d * d <= n; ++d)
        if (n % d == 0)
            return false;
    return n >= 2;
}

TEST(ReverbProcessor, LineLengthsArePrimesFromTheSizeAndAtLeast48) {
    for (const double r : {8000.0, 44100.0, 96000.0})
        for (const double size : {0.0, 0.6, 1.0}) {
            const auto dealt = ReverbProcessor::lineLengths(size, r);
            std::array<int, 16> sorted{};
            for (int l = 0; l < 16; ++l)
                sorted[static_cast<size_t>((5 * l) % 16)] = dealt[static_cast<size_t>(l)];
            for (int i = 0; i < 16; ++i) {
                const int n = sorted[static_cast<size_t>(i)];
                EXPECT_TRUE(isPrime(n)) << n;
                EXPECT_GE(n, 48);
                if (i > 0) {
                    EXPECT_GT(n, sorted[static_cast<size_t>(i - 1)]);
                }
                const double nominal = r * (4 + 36 * size) * std::pow(2.8, i / 15.0) / 1000;
                if (nominal > 60) {
                    EXPECT_LT(n, nominal + 40) << "near the nominal length";
                }
            }
        }
    // Size 0 at 8 kHz: the nominal 32 frames rise to the first primes above 48.
    const auto small = ReverbProcessor::lineLengths(0, 8000);
    EXPECT_EQ(small[0], 53);
}

TEST(ReverbProcessor, WidthZeroMakesChannelsEqualAndMixZeroIsTheInput) {
    Planes input{std::vector<float>(20000), std::vector<float>(20000)};
    for (size_t i = 0; i < 20000; ++i) {
        input[0][i] = std::sin(0.01f * static_cast<float>(i));
        input[1][i] = i % 300 == 0 ? 1.0f : 0.0f;
    }
    ReverbProcessor narrow;
    narrow.apply(ReverbSettings{.width = 0, .mix = 1});
    narrow.prepare(rate, 2, 512);
    Planes output = input;
    run(narrow, output, 100);
    for (size_t i = 0; i < output[0].size(); ++i)
        ASSERT_NEAR(output[0][i], output[1][i], 1e-6f * (1 + std::abs(output[0][i]))) << "frame " << i;

    ReverbProcessor dry;
    dry.apply(ReverbSettings{.mix = 0});
    dry.prepare(rate, 2, 512);
    output = input;
    run(dry, output, 100);
    EXPECT_EQ(output, input);
}

TEST(ReverbProcessor, TheLongestDecayFallsAtItsRateAndTheTailCoversIt) {
    ReverbProcessor reverb;
    reverb.apply(ReverbSettings{.preDelayMs = 250, .decaySeconds = 20, .size = 1, .damping = 0, .mix = 1});
    reverb.prepare(8000, 1, 4096);
    EXPECT_EQ(reverb.tailFrames(), static_cast<int>(8000 * (0.25 + 1.1 * 20 + 0.125)));
    // Ten seconds of loud noise, then the tail: it must fall at the set 3 dB per second.
    Planes planes{std::vector<float>(8000 * 20)};
    uint32_t state = 1;
    for (size_t i = 0; i < 8000 * 10; ++i) {
        state = state * 1664525u + 1013904223u;
        planes[0][i] = static_cast<float>(state >> 8) / 8388608.0f - 1.0f;
    }
    run(reverb, planes);
    const auto rms = [&](int second) {
        double sum = 0;
        for (int i = 0; i < 8000; ++i)
            sum += double{planes[0][static_cast<size_t>(second * 8000 + i)]} *
                   planes[0][static_cast<size_t>(second * 8000 + i)];
        return 10 * std::log10(sum / 8000);
    };
    EXPECT_NEAR(rms(12) - rms(18), 18, 1.0);
}

TEST(ReverbProcessor, MoreThanEightChannelsAreRefused) {
    ReverbProcessor reverb;
    EXPECT_THROW(reverb.prepare(48000, 9, 512), HarluneError);
    EXPECT_NO_THROW(reverb.prepare(48000, 8, 512));
}

} // namespace
} // namespace harlune
