#include "dsp/TruePeak.h"

#include "dsp/LoudnessSignals.h"

#include <cmath>
#include <gtest/gtest.h>
#include <numbers>
#include <random>

namespace harlune {
namespace {

// The interpolated peak the long way: every phase at every position, in double, from the design
// written out again here (windowed sinc, Kaiser beta 6, normalised to unity DC gain).
double naiveInterPeak(const std::vector<float>& x, double rate) {
    const int factor = rate < 96000 ? 4 : rate < 192000 ? 2 : 1;
    const auto i0 = [](double z) {
        double sum = 1, term = 1;
        for (int n = 1; n < 200; ++n) {
            term *= z / 2 / n;
            sum += term * term;
        }
        return sum;
    };
    std::vector<float> padded(23, 0.0f);
    padded.insert(padded.end(), x.begin(), x.end());
    padded.insert(padded.end(), 12, 0.0f);
    double best = 0;
    for (int p = 1; p < factor; ++p) {
        double taps[24], sum = 0;
        for (int k = 0; k < 24; ++k) {
            const double t = static_cast<double>(p) / factor - (k - 11);
            const double a = t / 12;
            taps[k] = (t == 0 ? 1 : std::sin(std::numbers::pi * t) / (std::numbers::pi * t)) *
                      (std::fabs(a) >= 1 ? 0 : i0(6 * std::sqrt(1 - a * a)) / i0(6));
            sum += taps[k];
        }
        for (size_t i = 0; i + 24 <= padded.size(); ++i) {
            double y = 0;
            for (int k = 0; k < 24; ++k)
                y += padded[i + static_cast<size_t>(k)] * taps[k] / sum;
            best = std::max(best, std::fabs(y));
        }
    }
    for (const float v : x)
        best = std::max(best, static_cast<double>(std::fabs(v)));
    return best;
}

float detectedTruePeak(const std::vector<float>& x, double rate) {
    TruePeakDetector detector(rate);
    detector.process(x);
    const std::vector<float> zeros(12, 0.0f);
    detector.process(zeros);
    return std::max(detector.samplePeak, detector.interPeak);
}

TEST(TruePeakInterpolatorTest, GainBoundCoversEveryPhase) {
    // The skip test relies on it: no phase may amplify more than the bound.
    const TruePeakInterpolator at48(48000);
    for (const auto& phase : at48.phases) {
        double sum = 0;
        for (const float tap : phase)
            sum += std::fabs(tap);
        EXPECT_LE(sum, at48.gainBound + 1e-6);
    }
}

TEST(TruePeakDetectorTest, AgreesWithTheDirectComputation) {
    std::mt19937 generator(11);
    std::normal_distribution<float> normal(0, 0.3f);
    // Each side of the rates where the oversampling factor changes (4, 2, then none).
    for (const double rate : {44100.0, 95999.0, 96000.0, 191999.0, 192000.0}) {
        for (const int length : {1, 7, 100, 1500, 40000}) {
            std::vector<float> x(static_cast<size_t>(length));
            for (auto& v : x)
                v = normal(generator);
            const double expected = naiveInterPeak(x, rate);
            EXPECT_NEAR(detectedTruePeak(x, rate), expected, expected * 2e-6) << rate << " Hz, " << length;
        }
    }
}

TEST(TruePeakDetectorTest, SilenceClicksAndHighRates) {
    TruePeakDetector silent(48000);
    silent.process(std::vector<float>(50000, 0.0f));
    EXPECT_EQ(silent.samplePeak, 0);
    EXPECT_EQ(silent.interPeak, 0);

    TruePeakDetector click(48000);
    std::vector<float> x(100, 0.0f);
    x[99] = 1;
    click.process(x);
    EXPECT_EQ(click.samplePeak, 1);
    EXPECT_LT(click.interPeak, 1); // not yet through the filter
    click.process(std::vector<float>(12, 0.0f));
    EXPECT_GE(click.interPeak, 1);

    TruePeakDetector high(192000);
    high.process(testing::sine(192000, 192000, 40000, 0.8, 30));
    EXPECT_EQ(high.interPeak, 0);
    EXPECT_GT(high.samplePeak, 0.7f);
}

TEST(TruePeakDetectorTest, PiecesAndLongBlocksGiveTheSamePeaks) {
    // Loud first, then a quieter stretch with one louder crest later, so the skip test is used.
    std::vector<float> x = testing::pinkNoise(100000, 5, -12);
    for (size_t i = 70000; i < 70010; ++i)
        x[i] = 0.95f * ((i % 2) ? 1.0f : -1.0f);
    TruePeakDetector whole(44100);
    whole.process(x);
    for (const size_t piece : {size_t{1}, size_t{23}, size_t{1000}, size_t{32768}, size_t{40000}}) {
        TruePeakDetector pieces(44100);
        for (size_t at = 0; at < x.size(); at += piece)
            pieces.process({x.data() + at, std::min(piece, x.size() - at)});
        EXPECT_EQ(pieces.samplePeak, whole.samplePeak) << piece;
        EXPECT_EQ(pieces.interPeak, whole.interPeak) << piece;
    }
    whole.process(std::vector<float>(12, 0.0f));
    EXPECT_NEAR(std::max(whole.interPeak, whole.samplePeak), naiveInterPeak(x, 44100), 1e-5);
    whole.reset();
    EXPECT_EQ(whole.samplePeak, 0);
    EXPECT_EQ(whole.interPeak, 0);
}

} // namespace
} // namespace harlune
