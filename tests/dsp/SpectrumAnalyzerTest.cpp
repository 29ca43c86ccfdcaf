// The spectrum analyser against a plain DFT in double precision with independently computed
// windows, and against closed forms: a full-scale sine on a bin, DC, silence, and the even
// sampling of long ranges.
#include "dsp/SpectrumAnalyzer.h"

#include "base/AudioSource.h"

#include <cmath>
#include <gtest/gtest.h>
#include <numbers>
#include <random>
#include <vector>

namespace harlune {
namespace {

constexpr double pi = std::numbers::pi;

std::vector<double> cosineSum(const std::vector<double>& terms, int count) {
    std::vector<double> w(static_cast<size_t>(count), 1.0);
    if (terms.empty())
        return w;
    for (int n = 0; n < count; ++n) {
        double sum = 0;
        for (size_t k = 0; k < terms.size(); ++k)
            sum += (k % 2 == 0 ? 1 : -1) * terms[k] * std::cos(2 * pi * static_cast<double>(k) * n / count);
        w[static_cast<size_t>(n)] = sum;
    }
    return w;
}

std::vector<double> referenceWindow(WindowFunction window, int count) {
    switch (window) {
    case WindowFunction::hann:
        return cosineSum({0.5, 0.5}, count);
    case WindowFunction::blackmanHarris:
        return cosineSum({0.35875, 0.48829, 0.14128, 0.01168}, count);
    case WindowFunction::flatTop:
        return cosineSum({0.21557895, 0.41663158, 0.277263158, 0.083578947, 0.006947368}, count);
    case WindowFunction::rectangular:
        return cosineSum({}, count);
    }
    return {};
}

// The power spectrum in dB of the frame starting at `start`, zero outside the planes, by the
// definition: a DFT per channel in double, one-sided power, all channels averaged.
std::vector<double> naiveSpectrum(const std::vector<std::vector<float>>& planes, int64_t start, int size,
                                  WindowFunction window) {
    const std::vector<double> w = referenceWindow(window, size);
    double coherent = 0;
    for (double x : w)
        coherent += x;
    std::vector<double> power(static_cast<size_t>(size / 2 + 1), 0.0);
    for (const auto& plane : planes) {
        std::vector<double> frame(static_cast<size_t>(size), 0.0);
        for (int n = 0; n < size; ++n) {
            const int64_t at = start + n;
            if (at >= 0 && at < static_cast<int64_t>(plane.size()))
                frame[static_cast<size_t>(n)] = plane[static_cast<size_t>(at)] * w[static_cast<size_t>(n)];
        }
        for (int k = 0; k <= size / 2; ++k) {
            double re = 0;
            double im = 0;
            for (int n = 0; n < size; ++n) {
                const double phase = 2 * pi * static_cast<double>(k) * n / size;
                re += frame[static_cast<size_t>(n)] * std::cos(phase);
                im -= frame[static_cast<size_t>(n)] * std::sin(phase);
            }
            const double bin = re * re + im * im;
            power[static_cast<size_t>(k)] += (k == 0 || k == size / 2) ? bin : 4 * bin;
        }
    }
    std::vector<double> decibels(power.size());
    for (size_t k = 0; k < power.size(); ++k)
        decibels[k] = 10 * std::log10(power[k] / (coherent * coherent) / static_cast<double>(planes.size()));
    return decibels;
}

std::vector<float> sine(int64_t frames, double frequency, double rate, double amplitude) {
    std::vector<float> x(static_cast<size_t>(frames));
    for (int64_t n = 0; n < frames; ++n)
        x[static_cast<size_t>(n)] =
            static_cast<float>(amplitude * std::sin(2 * pi * frequency * static_cast<double>(n) / rate));
    return x;
}

TEST(SpectrumAnalyzerTest, EqualsANaiveDFTAboveMinus100dB) {
    constexpr int size = 512;
    constexpr double rate = 48000;
    std::mt19937 generator(7);
    std::uniform_real_distribution<float> noise(-0.05f, 0.05f);
    std::vector<std::vector<float>> planes{sine(3000, 3210.7, rate, 0.7), sine(3000, 12001.3, rate, 0.2)};
    for (auto& plane : planes)
        for (float& x : plane)
            x += noise(generator);
    const ArraySource source(planes, rate);
    for (const WindowFunction window : allWindowFunctions()) {
        SpectrumAnalyzer analyzer(size, window);
        // Centred near the start (zero-padded in front), inside, and across the end.
        for (const int64_t centre : {int64_t{100}, int64_t{1500}, int64_t{2900}}) {
            const std::vector<float> measured = analyzer.spectrum(source, centre);
            const std::vector<double> expected = naiveSpectrum(planes, centre - size / 2, size, window);
            ASSERT_EQ(measured.size(), expected.size());
            for (size_t k = 0; k < expected.size(); ++k)
                if (expected[k] > -100) {
                    ASSERT_NEAR(measured[k], expected[k], 0.1)
                        << rawValue(window) << " centre " << centre << " bin " << k;
                }
        }
    }
}

TEST(SpectrumAnalyzerTest, AFullScaleSineOnABinReadsZeroInEveryWindow) {
    constexpr double rate = 48000;
    const ArraySource source({sine(20000, 1031.25, rate, 1.0)}, rate);
    for (const WindowFunction window : allWindowFunctions()) {
        SpectrumAnalyzer analyzer(4096, window);
        EXPECT_EQ(analyzer.binCount(), 2049);
        EXPECT_NEAR(analyzer.frequency(1, rate), 11.71875, 1e-9);
        EXPECT_DOUBLE_EQ(analyzer.frequency(88, rate), 1031.25);
        const std::vector<float> db = analyzer.spectrum(source, 10000);
        EXPECT_NEAR(db[88], 0.0, 0.01) << rawValue(window);
        EXPECT_EQ(std::max_element(db.begin(), db.end()) - db.begin(), 88) << rawValue(window);
    }
}

TEST(SpectrumAnalyzerTest, DCAndSilenceAndTheFloor) {
    const ArraySource dc({std::vector<float>(8192, 0.5f), std::vector<float>(8192, 0.5f)}, 44100);
    SpectrumAnalyzer analyzer(1024, WindowFunction::blackmanHarris);
    EXPECT_NEAR(analyzer.spectrum(dc, 4096)[0], 20 * std::log10(0.5), 0.001);

    const ArraySource silence({std::vector<float>(2000, 0.0f)}, 44100);
    for (const float db : analyzer.spectrum(silence, 1000))
        EXPECT_EQ(db, SpectrumAnalyzer::floorDB);
    for (const float db : analyzer.averagedSpectrum(silence, {500, 500}, 8))
        EXPECT_EQ(db, SpectrumAnalyzer::floorDB);
    // Not a number lands on the floor too.
    const ArraySource nan({std::vector<float>(2000, std::nanf(""))}, 44100);
    for (const float db : analyzer.spectrum(nan, 1000))
        EXPECT_EQ(db, SpectrumAnalyzer::floorDB);
}

TEST(SpectrumAnalyzerTest, AShortRangeIsOneWindowedFrameOfOnlyItsOwnSamples) {
    // Outside the range the source holds loud noise, which the limit must keep out.
    std::vector<float> samples = sine(6000, 700, 48000, 0.9);
    std::mt19937 generator(3);
    std::uniform_real_distribution<float> noise(-1, 1);
    for (size_t n = 0; n < samples.size(); ++n)
        if (n < 2000 || n >= 2600)
            samples[n] = noise(generator);
    const ArraySource source({samples}, 48000);
    const ArraySource alone({std::vector<float>(samples.begin() + 2000, samples.begin() + 2600)}, 48000);
    SpectrumAnalyzer analyzer(1024, WindowFunction::hann);
    const std::vector<float> average = analyzer.averagedSpectrum(source, {2000, 2600}, 256);
    const std::vector<double> expected = naiveSpectrum({alone.channels()}, 0, 1024, WindowFunction::hann);
    for (size_t k = 0; k < expected.size(); ++k)
        if (expected[k] > -100) {
            ASSERT_NEAR(average[k], expected[k], 0.1) << "bin " << k;
        }
}

TEST(SpectrumAnalyzerTest, TheAverageSamplesALongRangeEvenly) {
    constexpr double rate = 48000;
    constexpr int64_t frames = 480000;
    // Silence for three quarters, then a tone on bin 100.
    std::vector<float> samples(frames, 0.0f);
    const std::vector<float> tone = sine(frames / 4, rate * 100 / 4096, rate, 1.0);
    std::copy(tone.begin(), tone.end(), samples.begin() + frames * 3 / 4);
    const ArraySource source({samples}, rate);
    SpectrumAnalyzer analyzer(4096, WindowFunction::blackmanHarris);
    // 233 frames fit; 16 of them spread over the whole range, about a quarter in the tone.
    const std::vector<float> average = analyzer.averagedSpectrum(source, source.fullRange(), 16);
    EXPECT_GT(average[100], -9.0);
    EXPECT_LT(average[100], -4.0);
    // One frame is the middle one, in the silence.
    EXPECT_EQ(analyzer.averagedSpectrum(source, source.fullRange(), 1)[100], SpectrumAnalyzer::floorDB);
    // All frames: the tone's share of them, within a frame or two.
    const double share =
        std::pow(10.0, analyzer.averagedSpectrum(source, source.fullRange(), 1000)[100] / 10);
    EXPECT_NEAR(share, 0.25, 0.02);
}

TEST(SpectrumAnalyzerTest, WindowsAreTheirPeriodicCosineSums) {
    for (const WindowFunction window : allWindowFunctions()) {
        EXPECT_EQ(windowFunctionFromRawValue(rawValue(window)), window);
        const std::vector<float> w = coefficients(window, 256);
        const std::vector<double> expected = referenceWindow(window, 256);
        for (size_t n = 0; n < w.size(); ++n)
            ASSERT_FLOAT_EQ(w[n], static_cast<float>(expected[n])) << rawValue(window) << " " << n;
    }
    EXPECT_EQ(windowFunctionFromRawValue("kaiser"), std::nullopt);
    EXPECT_FLOAT_EQ(coefficients(WindowFunction::hann, 256)[128], 1.0f);
    EXPECT_NEAR(coefficients(WindowFunction::blackmanHarris, 256)[0], 0.00006, 1e-7);
}

TEST(SpectrumAnalyzerDeathTest, SizesMustBePowersOfTwoInRange) {
    EXPECT_DEATH(SpectrumAnalyzer(1000, WindowFunction::hann), "power of two");
    EXPECT_DEATH(SpectrumAnalyzer(128, WindowFunction::hann), "power of two");
}

} // namespace
} // namespace harlune
