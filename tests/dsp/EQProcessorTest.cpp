// The equaliser against independent references: each band's response from the RBJ cookbook
// formulas evaluated as complex transfer functions, and the processed level of steady sines.
#include "dsp/effects/EQProcessor.h"

#include "dsp/effects/EQDesign.h"
#include "dsp/effects/EffectFactory.h"
#include "support/AllocationCounter.h"
#include "support/TestAudio.h"

#include <array>
#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <numbers>
#include <string>
#include <vector>

namespace harlune {
namespace {

using testing::Planes;
constexpr double pi = std::numbers::pi;

// One band of each type, away from the defaults.
struct BandCase {
    EQBand band;
    /// Frequencies (Hz) where the processed sine is checked; kept above -60 dB.
    std::vector<double> probes;
};

EQBand makeBand(EQBandType type, double frequency, double gainDB, double q, int slope = 24) {
    EQBand band;
    band.type = type;
    band.frequency = frequency;
    band.gainDB = gainDB;
    band.q = q;
    band.slopeDBPerOctave = slope;
    return band;
}

const std::vector<BandCase>& bandCases() {
    static const std::vector<BandCase> all{
        {makeBand(EQBandType::lowCut, 200, 0, 1.2, 36), {120, 200, 450, 3000}},
        {makeBand(EQBandType::lowCut, 80, 0, 0.707, 12), {40, 80, 1000}},
        {makeBand(EQBandType::lowShelf, 150, 7.5, 0.7), {40, 150, 600, 5000}},
        {makeBand(EQBandType::peak, 1000, -9, 2), {500, 900, 1000, 1300, 4000}},
        {makeBand(EQBandType::notch, 3000, 0, 4), {1000, 2800, 3300, 9000}},
        {makeBand(EQBandType::highShelf, 6000, -5, 0.9), {1000, 6000, 15000}},
        {makeBand(EQBandType::highCut, 5000, 0, 2, 48), {1000, 5000, 8000}},
    };
    return all;
}

EQSettings oneBand(const EQBand& band, double outputGainDB = 0) {
    return EQSettings{.bands = {band}, .outputGainDB = outputGainDB};
}

// |H(e^jw)|^2 of a section with unnormalised coefficients, evaluated directly.
double sectionPower(const std::array<double, 6>& c, double f, double rate) {
    const std::complex<double> z1 = std::polar(1.0, -2 * pi * f / rate);
    const std::complex<double> z2 = z1 * z1;
    return std::norm((c[0] + c[1] * z1 + c[2] * z2) / (c[3] + c[4] * z1 + c[5] * z2));
}

// The cookbook's (b0, b1, b2, a0, a1, a2) per section, written out independently.
std::vector<std::array<double, 6>> cookbookSections(const EQBand& band, double rate) {
    const double f = std::min(band.frequency, 0.49 * rate);
    const double w = 2 * pi * f / rate, c = std::cos(w), s = std::sin(w);
    const double alpha = s / (2 * band.q), A = std::pow(10.0, band.gainDB / 40), rootA = std::sqrt(A);
    switch (band.type) {
    case EQBandType::peak:
        return {{1 + alpha * A, -2 * c, 1 - alpha * A, 1 + alpha / A, -2 * c, 1 - alpha / A}};
    case EQBandType::notch:
        return {{1, -2 * c, 1, 1 + alpha, -2 * c, 1 - alpha}};
    case EQBandType::lowShelf:
        return {{A * ((A + 1) - (A - 1) * c + 2 * rootA * alpha), 2 * A * ((A - 1) - (A + 1) * c),
                 A * ((A + 1) - (A - 1) * c - 2 * rootA * alpha), (A + 1) + (A - 1) * c + 2 * rootA * alpha,
                 -2 * ((A - 1) + (A + 1) * c), (A + 1) + (A - 1) * c - 2 * rootA * alpha}};
    case EQBandType::highShelf:
        return {{A * ((A + 1) + (A - 1) * c + 2 * rootA * alpha), -2 * A * ((A - 1) + (A + 1) * c),
                 A * ((A + 1) + (A - 1) * c - 2 * rootA * alpha), (A + 1) - (A - 1) * c + 2 * rootA * alpha,
                 2 * ((A - 1) - (A + 1) * c), (A + 1) - (A - 1) * c - 2 * rootA * alpha}};
    case EQBandType::lowCut:
    case EQBandType::highCut: {
        // Butterworth of order 2n from its pole angles; the last section carries the band's Q.
        const int n = band.slopeDBPerOctave / 12;
        std::vector<std::array<double, 6>> sections;
        for (int k = 1; k <= n; ++k) {
            double qk = 1 / (2 * std::cos((2 * k - 1) * pi / (4 * n)));
            if (k == n)
                qk *= band.q * std::sqrt(2.0);
            const double a = s / (2 * qk);
            if (band.type == EQBandType::lowCut)
                sections.push_back({(1 + c) / 2, -(1 + c), (1 + c) / 2, 1 + a, -2 * c, 1 - a});
            else
                sections.push_back({(1 - c) / 2, 1 - c, (1 - c) / 2, 1 + a, -2 * c, 1 - a});
        }
        return sections;
    }
    }
    return {};
}

double referenceDB(const EQBand& band, double f, double rate) {
    double power = 1;
    for (const auto& section : cookbookSections(band, rate))
        power *= sectionPower(section, f, rate);
    return 10 * std::log10(power);
}

TEST(EQDesign, ResponseMatchesTheCookbookForEveryBandType) {
    for (const double rate : {44100.0, 96000.0})
        for (const BandCase& test : bandCases()) {
            SCOPED_TRACE(std::string(rawValue(test.band.type)) + " at " + std::to_string(rate));
            std::vector<double> grid;
            for (double f = 20; f < 0.5 * rate; f *= 1.17)
                grid.push_back(f);
            const auto response = oneBand(test.band, -1.5).responseDB(grid, rate);
            for (size_t i = 0; i < grid.size(); ++i) {
                const double expected = referenceDB(test.band, grid[i], rate) - 1.5;
                if (expected > -90)
                    EXPECT_NEAR(response[i], expected, 1e-6 + 1e-6 * std::abs(expected)) << grid[i] << " Hz";
                else
                    EXPECT_LT(response[i], -80) << grid[i] << " Hz";
            }
        }
}

TEST(EQDesign, ClampsRoundsSlopesAndSkipsWhatDoesNotSound) {
    const double rate = 48000;
    // Slopes round to 1...4 sections.
    for (const auto& [slope, sections] : {std::pair{6, 1}, {12, 1}, {30, 3}, {60, 4}, {-12, 1}})
        EXPECT_EQ(EQDesign::band(EQBandType::highCut, 1000, 0, 0.7, slope, rate).sectionCount, sections)
            << slope;
    // A band above 0.49 of the rate is designed there; bad numbers fall back.
    EXPECT_EQ(EQDesign::band(EQBandType::peak, 40000, 6, 1, 24, rate),
              EQDesign::band(EQBandType::peak, 0.49 * rate, 6, 1, 24, rate));
    EXPECT_EQ(EQDesign::band(EQBandType::peak, NAN, NAN, NAN, 24, rate),
              EQDesign::band(EQBandType::peak, 1000, 0, 0.707, 24, rate));
    EXPECT_EQ(EQDesign::band(EQBandType::lowShelf, 1, 99, 1000, 24, rate),
              EQDesign::band(EQBandType::lowShelf, 5, 48, 40, 24, rate));
    // 0 dB gain bands are exact identities; a ninth band and disabled ones are ignored.
    for (const EQBandType type : {EQBandType::peak, EQBandType::lowShelf, EQBandType::highShelf})
        EXPECT_TRUE(EQDesign::isIdentity(EQDesign::band(type, 700, 0, 1.3, 24, rate)));
    EQSettings settings = oneBand(makeBand(EQBandType::peak, 1000, 0, 1));
    settings.bands.resize(8, makeBand(EQBandType::peak, 1000, 0, 1));
    settings.bands.push_back(makeBand(EQBandType::peak, 1000, 12, 1));
    EQBand off = makeBand(EQBandType::notch, 1000, 0, 1);
    off.isEnabled = false;
    settings.bands[3] = off;
    const std::vector<double> at{1000};
    EXPECT_EQ(settings.responseDB(at, rate), std::vector<double>{0.0});
    const EQSettings loud{.bands = {}, .outputGainDB = 99};
    EXPECT_EQ(loud.responseDB(at, 0), std::vector<double>{48.0});
}

// Runs `planes` through in calls of `block` frames.
// Not inlined: g++ 12 then sees a false out-of-bounds read of the planes.
[[gnu::noinline]] void run(EffectProcessor& processor, Planes& planes, int block = 512) {
    std::array<float*, 4> pointers{};
    for (size_t c = 0; c < planes.size(); ++c)
        pointers.at(c) = planes[c].data();
    const ChannelSpan whole(ChannelPointers(pointers).first(planes.size()),
                            static_cast<int>(planes.front().size()));
    for (int done = 0; done < whole.frameCount(); done += block)
        processor.process(whole.frames(done, std::min(block, whole.frameCount() - done)));
}

// Each channel its own amplitude and phase, so that crossed channels show.
double amplitude(size_t channel) {
    return 0.5 / static_cast<double>(channel + 1);
}

Planes sines(int channels, double f, double rate, int frames) {
    Planes planes(static_cast<size_t>(channels), std::vector<float>(static_cast<size_t>(frames)));
    for (size_t c = 0; c < planes.size(); ++c)
        for (int i = 0; i < frames; ++i)
            planes[c][static_cast<size_t>(i)] =
                static_cast<float>(amplitude(c) * std::sin(2 * pi * f * i / rate + static_cast<double>(c)));
    return planes;
}

// The level of a sine of frequency f in `y[from...]`, relative to `amplitude`, by least squares
// on sine and cosine.
double levelDB(const std::vector<float>& y, double amplitude, size_t from, double f, double rate) {
    double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0;
    for (size_t i = from; i < y.size(); ++i) {
        const double phase = 2 * pi * f * static_cast<double>(i) / rate;
        const double s = std::sin(phase), c = std::cos(phase);
        ss += s * s, cc += c * c, sc += s * c, ys += y[i] * s, yc += y[i] * c;
    }
    const double det = ss * cc - sc * sc;
    const double a = (ys * cc - yc * sc) / det, b = (yc * ss - ys * sc) / det;
    return 20 * std::log10(std::hypot(a, b) / amplitude);
}

// The settings arrive while running (so the glides and fades run), and the settled output of a
// stereo sine has the level `responseDB` predicts.
TEST(EQProcessor, SettledSineHasThePredictedLevel) {
    for (const double rate : {44100.0, 96000.0})
        for (const BandCase& test : bandCases())
            for (const double f : test.probes) {
                SCOPED_TRACE(std::string(rawValue(test.band.type)) + " at " + std::to_string(rate) + ", " +
                             std::to_string(f) + " Hz");
                const EQSettings settings = oneBand(test.band, 2);
                EQProcessor processor;
                processor.prepare(rate, 3, 1024);
                processor.apply(settings);
                const int settle = static_cast<int>(rate * 0.6);
                Planes signal = sines(3, f, rate, settle + static_cast<int>(rate * 0.2));
                run(processor, signal, 300);
                const double expected = settings.responseDB(std::vector<double>{f}, rate)[0];
                for (size_t c = 0; c < signal.size(); ++c)
                    EXPECT_NEAR(levelDB(signal[c], amplitude(c), static_cast<size_t>(settle), f, rate),
                                expected, 0.05)
                        << "channel " << c;
            }
}

TEST(EQProcessor, FlatBandsPassTheInputBitForBit) {
    const Planes input = testing::noisePlanes(2, 48000, 4);
    // The default (every band at 0 dB), every band off, and a boost that returns to 0 dB: once
    // the glide has ended and the flat band has rung out, the buffers are left untouched.
    EQSettings boosted;
    boosted.bands[2].gainDB = 9;
    boosted.outputGainDB = -3;
    for (const auto& [name, before] : {std::pair{"default", EQSettings{}},
                                       {"no bands", EQSettings{.bands = {}}},
                                       {"boost released", boosted}}) {
        SCOPED_TRACE(name);
        auto processor = EffectFactory::makeProcessor(before);
        processor->prepare(48000, 2, 512);
        Planes warmup = input;
        run(*processor, warmup);
        processor->apply(EQSettings{});
        run(*processor, warmup); // glides and 250 ms of ringing out fit in a second
        Planes output = input;
        const testing::AllocationCounter counter;
        run(*processor, output, 333);
        EXPECT_EQ(counter.count(), 0);
        EXPECT_TRUE(output == input);
    }
}

// Retyping, disabling and moving a band while running: no allocation, no jump between frames.
TEST(EQProcessor, ChangesWhileRunningGlideWithoutClicks) {
    const double rate = 48000;
    EQProcessor processor;
    processor.prepare(rate, 1, 256);
    processor.apply(oneBand(makeBand(EQBandType::peak, 500, 12, 1)));
    Planes signal = sines(1, 220, rate, 6 * 4800);
    const std::vector<EffectSettings> steps{
        oneBand(makeBand(EQBandType::peak, 5000, -12, 3)), oneBand(makeBand(EQBandType::lowCut, 400, 0, 0.7)),
        oneBand(makeBand(EQBandType::lowCut, 400, 0, 0.7, 48)), EQSettings{.bands = {}, .outputGainDB = 6},
        oneBand(makeBand(EQBandType::highShelf, 100, -20, 1))};
    std::array<float*, 1> pointers{signal[0].data()};
    const ChannelSpan whole(ChannelPointers(pointers), static_cast<int>(signal[0].size()));
    const testing::AllocationCounter counter;
    for (size_t step = 0; step <= steps.size(); ++step) {
        if (step > 0)
            processor.apply(steps[step - 1]);
        for (int done = 0; done < 4800; done += 100)
            processor.process(whole.frames(static_cast<int>(step) * 4800 + done, 100));
    }
    EXPECT_EQ(counter.count(), 0);
    // A 220 Hz sine of amplitude <= 0.5 * 4 moves at most ~0.06 per frame; a click would jump.
    for (size_t i = 1; i < signal[0].size(); ++i)
        ASSERT_LT(std::abs(signal[0][i] - signal[0][i - 1]), 0.12f) << "frame " << i;
}

} // namespace
} // namespace harlune
