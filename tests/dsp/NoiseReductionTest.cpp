// Noise reduction against statistics that hold for any correct implementation: the learnt
// profile of white noise is its variance, learnt noise is cut by the set amount, a tone well
// above the noise passes unchanged, and without a profile the processor is an exact delay.
#include "base/AudioSource.h"
#include "dsp/effects/NoiseReductionProcessor.h"

#include <array>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>
#include <random>
#include <vector>

namespace harlune {
namespace {

using Planes = std::vector<std::vector<float>>;

std::vector<float> gaussian(size_t frames, double sigma, uint32_t seed) {
    std::mt19937 engine(seed);
    std::normal_distribution<double> normal(0.0, sigma);
    std::vector<float> samples(frames);
    for (float& x : samples)
        x = static_cast<float>(normal(engine));
    return samples;
}

void run(NoiseReductionProcessor& processor, Planes& planes, int block = 1000) {
    std::array<float*, 8> pointers{};
    for (size_t c = 0; c < planes.size(); ++c)
        pointers.at(c) = planes[c].data();
    const ChannelSpan whole(ChannelPointers(pointers).first(planes.size()),
                            static_cast<int>(planes[0].size()));
    for (int done = 0; done < whole.frameCount(); done += block)
        processor.process(whole.frames(done, std::min(block, whole.frameCount() - done)));
}

double power(const std::vector<float>& x, size_t from, size_t to) {
    double sum = 0;
    for (size_t i = from; i < to; ++i)
        sum += double{x[i]} * x[i];
    return sum / static_cast<double>(to - from);
}

constexpr double rate = 48000;
constexpr double sigma = 0.05;

NoiseProfile learntWhiteProfile() {
    const ArraySource noise({gaussian(96000, sigma, 7)}, rate);
    return NoiseProfile::learn(noise, {0, 96000}, NoiseReductionProcessor::fftSize(rate));
}

TEST(NoiseProfile, LearntWhiteNoiseIsItsVarianceInEveryBin) {
    const int64_t frames = 200000;
    const ArraySource noise({gaussian(frames, sigma, 3), gaussian(frames, sigma, 4)}, rate);
    const NoiseProfile profile = NoiseProfile::learn(noise, {-5000, frames + 5000}, 2048);
    ASSERT_EQ(profile.fftSize, 2048);
    ASSERT_EQ(profile.binPower.size(), 1025u);
    EXPECT_EQ(profile.sampleRate, rate);
    // Whole frames at a hop of 1024, in both channels. A bin's estimate has a relative spread of
    // about 1.05/sqrt(K) (the half overlap adds 5 %), so each bin's bound is near 3.8 sigma.
    const double k = 2.0 * ((frames - 2048) / 1024 + 1);
    const double variance = sigma * sigma;
    double mean = 0;
    for (size_t b = 0; b < profile.binPower.size(); ++b) {
        const float p = profile.binPower[b];
        mean += p / 1025.0;
        EXPECT_NEAR(p, variance, variance * 4 / std::sqrt(k)) << "bin " << b;
    }
    EXPECT_NEAR(mean, variance, 0.01 * variance);

    EXPECT_EQ(NoiseProfile::learn(noise, {0, 10}, 100).fftSize, 256);
    EXPECT_EQ(NoiseProfile::learn(noise, {0, 10}, 2500).fftSize, 2048);
    EXPECT_EQ(NoiseProfile::learn(noise, {0, 10}, 1 << 20).binPower.size(), 32769u);
    const NoiseProfile empty = NoiseProfile::learn(noise, {frames, frames + 100}, 2048);
    EXPECT_EQ(empty.binPower, std::vector<float>(1025, 0.0f));
}

// Output over input power of learnt noise, after the run-in, in dB.
double noiseChangeDB(const NoiseProfile& profile, double reductionDB) {
    NoiseReductionProcessor processor;
    processor.apply(NoiseReductionSettings{.profile = profile, .reductionDB = reductionDB});
    processor.prepare(rate, 1, 4096);
    Planes planes{gaussian(4 * 48000, sigma, 99)};
    const std::vector<float> input = planes[0];
    run(processor, planes);
    const auto latency = static_cast<size_t>(processor.latencyFrames());
    return 10 * std::log10(power(planes[0], 48000 + latency, planes[0].size()) /
                           power(input, 48000, input.size() - latency));
}

TEST(NoiseReductionProcessor, LearntNoiseIsCutByTheSetAmount) {
    const NoiseProfile profile = learntWhiteProfile();
    for (const double reduction : {6.0, 12.0, 18.0, 24.0}) {
        const double change = noiseChangeDB(profile, reduction);
        EXPECT_NEAR(change, -reduction, 0.5) << "set to " << reduction << " dB";
    }
    EXPECT_NEAR(noiseChangeDB(profile, 0), 0, 1e-3) << "a floor of 1 keeps every gain at 1";
}

// A profile learnt at 44.1 kHz serves at 96 kHz: mapped by bin frequency (4096-point bins here
// are about as wide as 2048-point ones there) and scaled by the ratio of the rates, so noise
// whose power per bin is that much higher is what it then cuts by the set amount.
TEST(NoiseReductionProcessor, AProfileFromAnotherRateIsMappedAndScaled) {
    const ArraySource learnt({gaussian(88200, sigma, 21)}, 44100);
    const NoiseProfile profile = NoiseProfile::learn(learnt, {0, 88200}, 2048);
    NoiseReductionProcessor processor;
    processor.apply(NoiseReductionSettings{.profile = profile, .reductionDB = 12});
    processor.prepare(96000, 1, 4096);
    Planes planes{gaussian(4 * 96000, sigma * std::sqrt(96000 / 44100.0), 22)};
    const std::vector<float> input = planes[0];
    run(processor, planes);
    const auto latency = static_cast<size_t>(processor.latencyFrames());
    const double change = 10 * std::log10(power(planes[0], 96000 + latency, planes[0].size()) /
                                          power(input, 96000, input.size() - latency));
    EXPECT_NEAR(change, -12, 0.5);
}

// The tone's amplitude in the output over that in the input, in dB, by projection on the
// known sinusoid after the latency.
double toneChangeDB(double snrDB, double smoothing, double cyclesPerFrame) {
    const size_t frames = 4 * 48000;
    const double amplitude = std::sqrt(2 * sigma * sigma * std::pow(10, snrDB / 10));
    std::vector<float> tone(frames);
    for (size_t i = 0; i < frames; ++i)
        tone[i] = static_cast<float>(
            amplitude * std::sin(2 * std::numbers::pi * cyclesPerFrame * static_cast<double>(i)));
    Planes planes{gaussian(frames, sigma, 5)};
    for (size_t i = 0; i < frames; ++i)
        planes[0][i] += tone[i];
    NoiseReductionProcessor processor;
    processor.apply(NoiseReductionSettings{.profile = learntWhiteProfile(), .smoothing = smoothing});
    processor.prepare(rate, 1, 4096);
    run(processor, planes);
    const auto latency = static_cast<size_t>(processor.latencyFrames());
    double inPhase = 0, quadrature = 0, reference = 0;
    for (size_t i = 48000; i + latency < frames; ++i) {
        const double c = std::cos(2 * std::numbers::pi * cyclesPerFrame * static_cast<double>(i));
        inPhase += planes[0][i + latency] * tone[i];
        quadrature += planes[0][i + latency] * c * amplitude;
        reference += double{tone[i]} * tone[i];
    }
    return 10 * std::log10((inPhase * inPhase + quadrature * quadrature) / (reference * reference));
}

// A tone with 20 dB more power than the whole noise stands about 48 dB above it in its own bins,
// so its Wiener gains are 1 within 1e-5 there.
TEST(NoiseReductionProcessor, ATone20dBAboveTheNoisePasses) {
    for (const double smoothing : {0.0, 0.5, 1.0})
        for (const double bin : {23.25, 23.5, 100.75}) {
            SCOPED_TRACE("smoothing " + std::to_string(smoothing) + ", bin " + std::to_string(bin));
            EXPECT_NEAR(toneChangeDB(20, smoothing, bin / 2048), 0, 0.01);
        }
    EXPECT_NEAR(toneChangeDB(20, 0, 23.0 / 2048), 0, 0.01);
    // A tone right on a bin centre has all its Hann spectrum in three bins, and the bins two
    // away hold noise only; the neighbour smoothing n then turns the two side bins down to 1 - n,
    // which reshapes the analysis window to 0.5 - 0.5 (1 - n) cos. Its overlap with the
    // synthesis window sums to 1 + (1 - n) / 2 instead of 3/2.
    for (const double smoothing : {0.5, 1.0}) {
        const double n = 0.25 * smoothing;
        EXPECT_NEAR(toneChangeDB(20, smoothing, 23.0 / 2048), 20 * std::log10((1 + (1 - n) / 2) / 1.5), 0.02)
            << "smoothing " << smoothing;
    }
    // At 0 dB SNR the tone still stands near 28 dB above the noise in its main bins, but its
    // weaker side bins sink toward the noise and are cut: it loses between 0.1 and 0.5 dB.
    for (const double bin : {23.25, 23.5, 100.75}) {
        const double change = toneChangeDB(0, 0.5, bin / 2048);
        EXPECT_LT(change, -0.05) << "bin " << bin;
        EXPECT_GT(change, -0.5) << "bin " << bin;
    }
}

TEST(NoiseReductionProcessor, WithoutAProfileItIsAnExactDelay) {
    NoiseReductionProcessor processor;
    processor.prepare(44100, 2, 512);
    const int latency = processor.latencyFrames();
    EXPECT_EQ(latency, 2048);
    Planes planes{gaussian(30000, 0.3, 3), gaussian(30000, 0.3, 4)};
    const Planes input = planes;
    run(processor, planes, 333);
    for (size_t c = 0; c < 2; ++c)
        for (size_t i = 0; i < 30000; ++i)
            ASSERT_EQ(planes[c][i], i < 2048 ? 0.0f : input[c][i - 2048])
                << "channel " << c << " frame " << i;

    NoiseReductionProcessor noiseOnly;
    noiseOnly.apply(NoiseReductionSettings{.profile = std::nullopt, .outputNoiseOnly = true});
    noiseOnly.prepare(44100, 1, 512);
    Planes single{input[0]};
    run(noiseOnly, single);
    EXPECT_EQ(single[0], std::vector<float>(30000, 0.0f));
}

TEST(NoiseReductionProcessor, FftSizeFollowsTheRate) {
    EXPECT_EQ(NoiseReductionProcessor::fftSize(48000), 2048);
    EXPECT_EQ(NoiseReductionProcessor::fftSize(44100), 2048);
    EXPECT_EQ(NoiseReductionProcessor::fftSize(96000), 4096);
    EXPECT_EQ(NoiseReductionProcessor::fftSize(8000), 256);
    EXPECT_EQ(NoiseReductionProcessor::fftSize(1e7), 16384);
}

} // namespace
} // namespace harlune
