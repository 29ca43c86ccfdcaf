// The saturator against references written out here: the closed-form curves run without
// oversampling (for aliasing), the analytic responses of the DC blocker and the RBJ low-pass
// (for the delay), and processors given the fallback values by hand (for bad settings).
#include "dsp/effects/DistortionProcessor.h"

#include "dsp/effects/EffectFactory.h"
#include "dsp/effects/SaturationCurves.h"
#include "support/AllocationCounter.h"
#include "support/TestAudio.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdio>
#include <fftw3.h>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <numbers>
#include <string>
#include <vector>

namespace harlune {
namespace {

using testing::Planes;
constexpr double pi = std::numbers::pi;
constexpr double rate = 48000;

std::vector<float> sine(double frequency, double amplitude, int frames) {
    std::vector<float> out(static_cast<size_t>(frames));
    for (int n = 0; n < frames; ++n)
        out[static_cast<size_t>(n)] = static_cast<float>(amplitude * std::sin(2 * pi * frequency * n / rate));
    return out;
}

// In calls of `block` frames, with `between(call)` run before each call (to change settings).
void run(DistortionProcessor& processor, Planes& planes, int block,
         const std::function<void(int64_t frame)>& before = {}) {
    std::vector<float*> pointers;
    for (auto& plane : planes)
        pointers.push_back(plane.data());
    const ChannelSpan whole(ChannelPointers(pointers), static_cast<int>(planes.front().size()));
    for (int done = 0; done < whole.frameCount(); done += block) {
        if (before)
            before(done);
        processor.process(whole.frames(done, std::min(block, whole.frameCount() - done)));
    }
}

std::vector<float> processed(const DistortionSettings& settings, std::vector<float> signal, int block = 512) {
    DistortionProcessor processor;
    processor.apply(settings);
    processor.prepare(rate, 1, 1024);
    Planes planes{std::move(signal)};
    run(processor, planes, block);
    return planes.front();
}

// Magnitude spectrum (dB, 0 = a full-scale sine) under a Kaiser window of beta 20, whose
// sidelobes lie far below anything measured here.
std::vector<double> spectrumDB(const std::vector<float>& samples) {
    const int n = static_cast<int>(samples.size());
    std::vector<double> in(static_cast<size_t>(n));
    double windowSum = 0;
    const double beta = 20;
    for (int i = 0; i < n; ++i) {
        const double t = 2.0 * i / (n - 1) - 1;
        const double w = std::cyl_bessel_i(0.0, beta * std::sqrt(1 - t * t)) / std::cyl_bessel_i(0.0, beta);
        in[static_cast<size_t>(i)] = samples[static_cast<size_t>(i)] * w;
        windowSum += w;
    }
    std::vector<fftw_complex> out(static_cast<size_t>(n / 2 + 1));
    fftw_plan plan = fftw_plan_dft_r2c_1d(n, in.data(), out.data(), FFTW_ESTIMATE);
    fftw_execute(plan);
    fftw_destroy_plan(plan);
    std::vector<double> dB(out.size());
    for (size_t k = 0; k < out.size(); ++k)
        dB[k] = 20 * std::log10(std::hypot(out[k][0], out[k][1]) * 2 / windowSum + 1e-30);
    return dB;
}

double peakNear(const std::vector<double>& dB, double frequency, int n, int halfWidth = 10) {
    const auto centre = static_cast<int>(std::lround(frequency * n / rate));
    double peak = -400;
    for (int k = std::max(0, centre - halfWidth);
         k <= std::min<int>(static_cast<int>(dB.size()) - 1, centre + halfWidth); ++k)
        peak = std::max(peak, dB[static_cast<size_t>(k)]);
    return peak;
}

// The strongest harmonic folded about Nyquist that lands below 21.8 kHz, in dB under the
// fundamental. Alias bins within a main lobe of a true harmonic cannot be told apart and are
// left out.
double worstAliasDB(const std::vector<float>& output, double f0) {
    const int n = static_cast<int>(output.size());
    const auto dB = spectrumDB(output);
    const double fundamental = peakNear(dB, f0, n);
    const double binHz = rate / n;
    double worst = -400;
    for (int h = 2; h * f0 < 12 * rate; ++h) {
        const double f = h * f0;
        if (f < rate / 2)
            continue;
        const double folded = std::abs(f - rate * std::round(f / rate));
        if (folded >= 21800)
            continue;
        const double nearestHarmonic = f0 * std::round(folded / f0);
        if (std::abs(folded - nearestHarmonic) < 12 * binHz)
            continue;
        worst = std::max(worst, peakNear(dB, folded, n) - fundamental);
    }
    return worst;
}

double curve(SaturationMode mode, double x) {
    switch (mode) {
    case SaturationMode::soft:
        return std::tanh(x);
    case SaturationMode::tube:
        return 1.0927327 * std::tanh(x + 0.3) - 0.31832683;
    case SaturationMode::hard:
        return std::clamp(x, -1.0, 1.0);
    case SaturationMode::bitcrush:
        break;
    }
    return x;
}

// The curve's own tanh against the library's, in double: relative accuracy also near zero,
// odd symmetry, and saturation far out.
TEST(SaturationCurves, TanhIsWithinAFewUlpOfTheLibrary) {
    double worstUlp = 0;
    for (float x = 1e-30f; x < 12; x *= 1.0007f) {
        const double reference = std::tanh(static_cast<double>(x));
        const float got = SaturationCurves::tanh(x);
        const auto nearest = static_cast<float>(reference);
        const double ulp = std::nextafter(nearest, 2.0f) - nearest;
        worstUlp = std::max(worstUlp, std::abs(got - reference) / ulp);
        ASSERT_EQ(SaturationCurves::tanh(-x), -got) << x;
    }
    EXPECT_LE(worstUlp, 4);
    EXPECT_EQ(SaturationCurves::tanh(0.0f), 0.0f);
    EXPECT_EQ(SaturationCurves::tanh(1e6f), 1.0f);
    EXPECT_EQ(SaturationCurves::tanh(-std::numeric_limits<float>::infinity()), -1.0f);
}

TEST(DistortionProcessor, OversamplingKeepsAliasesFarUnderTheFundamental) {
    constexpr int settle = 4096;
    constexpr int analysed = 1 << 16;
    const double drive = std::pow(10.0, 12.0 / 20);
    for (const SaturationMode mode : {SaturationMode::soft, SaturationMode::tube, SaturationMode::hard})
        for (const double f0 : {1213.0, 2011.0, 3089.0, 4603.0}) {
            SCOPED_TRACE(std::string(rawValue(mode)) + " at " + std::to_string(f0));
            const auto input = sine(f0, 0.5, settle + analysed);
            const DistortionSettings settings{
                .mode = mode, .driveDB = 12, .toneHz = 1e9, .outputDB = 0, .mix = 1};
            const auto output = processed(settings, input);
            const double ours = worstAliasDB({output.begin() + settle, output.end()}, f0);

            std::vector<float> naive(static_cast<size_t>(analysed));
            for (int i = 0; i < analysed; ++i)
                naive[static_cast<size_t>(i)] =
                    static_cast<float>(curve(mode, drive * input[static_cast<size_t>(settle + i)]));
            const double plain = worstAliasDB(naive, f0);
            std::printf("[ aliasing ] %-9s %6.0f Hz: worst alias %7.1f dB, without oversampling %7.1f dB\n",
                        std::string(rawValue(mode)).c_str(), f0, ours, plain);

            if (mode == SaturationMode::hard) {
                if (f0 < 1300) {
                    EXPECT_LE(ours, -77);
                } else if (f0 > 4500) {
                    EXPECT_LE(ours, -56);
                }
            } else {
                EXPECT_LE(ours, -100);
            }
            EXPECT_LE(ours, plain - 20);
        }
}

// Phase of a steady sine at `frequency`, over whole cycles of a one-second window.
std::complex<double> phasor(const std::vector<float>& samples, int start, double frequency) {
    std::complex<double> sum;
    for (int i = 0; i < static_cast<int>(rate); ++i) {
        const double w = 2 * pi * frequency * (start + i) / rate;
        sum += static_cast<double>(samples[static_cast<size_t>(start + i)]) * std::polar(1.0, -w);
    }
    return sum;
}

// The DC blocker and the RBJ low-pass at `toneHz`, from their transfer functions.
std::complex<double> filterResponse(double frequency, double toneHz) {
    const std::complex<double> z1 = std::polar(1.0, -2 * pi * frequency / rate);
    const double r = std::exp(-2 * pi * 5 / rate);
    const std::complex<double> dc = (1.0 - z1) / (1.0 - r * z1);
    const double w = 2 * pi * toneHz / rate, c = std::cos(w), alpha = std::sin(w) / (2 * std::sqrt(0.5));
    const std::complex<double> lowPass = ((1 - c) / 2 + (1 - c) * z1 + (1 - c) / 2 * z1 * z1) /
                                         ((1 + alpha) - 2 * c * z1 + (1 - alpha) * z1 * z1);
    return dc * lowPass;
}

TEST(DistortionProcessor, WetPathDelayIsTheLatencyAndAHalfMixDoesNotComb) {
    constexpr int settle = 16384;
    const double toneHz = 0.45 * rate;
    DistortionSettings settings{
        .mode = SaturationMode::hard, .driveDB = 0, .toneHz = toneHz, .outputDB = 0, .mix = 1};
    std::vector<double> omega, rawPhase, pathPhase;
    for (double f = 250; f <= 5000; f += 250) {
        const auto input = sine(f, 0.1, settle + static_cast<int>(rate));
        const auto wet = processed(settings, input);
        const std::complex<double> ratio = phasor(wet, settle, f) / phasor(input, settle, f);
        omega.push_back(2 * pi * f / rate);
        rawPhase.push_back(std::arg(ratio));
        pathPhase.push_back(std::arg(ratio / filterResponse(f, toneHz)));

        DistortionSettings half = settings;
        half.mix = 0.5;
        const auto mixed = processed(half, input);
        const double levelDB = 20 * std::log10(std::abs(phasor(mixed, settle, f) / phasor(input, settle, f)));
        EXPECT_LT(std::abs(levelDB), 0.01) << f << " Hz at a 50 % mix";
    }
    // Steps of 250 Hz turn the phase by less than pi, so the unwrapping is sure.
    const auto slopeDelay = [&](std::vector<double> phase) {
        for (size_t i = 1; i < phase.size(); ++i)
            while (phase[i] > phase[i - 1])
                phase[i] -= 2 * pi;
        double sx = 0, sy = 0, sxx = 0, sxy = 0;
        const double count = static_cast<double>(phase.size());
        for (size_t i = 0; i < phase.size(); ++i) {
            sx += omega[i];
            sy += phase[i];
            sxx += omega[i] * omega[i];
            sxy += omega[i] * phase[i];
        }
        return -(count * sxy - sx * sy) / (count * sxx - sx * sx);
    };
    const double raw = slopeDelay(rawPhase);
    const double path = slopeDelay(pathPhase);
    std::printf(
        "[ latency  ] wet delay from phase slope 250..5000 Hz: %.4f frames (with the DC blocker and the "
        "%.0f Hz tone filter: %.4f)\n",
        path, toneHz, raw);
    EXPECT_NEAR(path, 47.0, 0.01);
    EXPECT_EQ(DistortionProcessor().latencyFrames(), 47);
}

// Energy more than 500 Hz from a 1 kHz tone, relative to the tone, while a setting jumps.
double splatterDB(const std::vector<float>& output) {
    const int n = static_cast<int>(output.size());
    const auto dB = spectrumDB(output);
    const double tone = peakNear(dB, 1000, n);
    double worst = -400;
    for (size_t k = 1; k < dB.size(); ++k) {
        const double f = static_cast<double>(k) * rate / n;
        if (std::abs(f - 1000) > 500)
            worst = std::max(worst, dB[k] - tone);
    }
    return worst;
}

TEST(DistortionProcessor, LevelJumpsAndModeChangesDoNotClick) {
    const DistortionSettings start{
        .mode = SaturationMode::hard, .driveDB = 0, .toneHz = 20000, .outputDB = 0, .mix = 1};
    struct Jump {
        const char* name;
        DistortionSettings to;
    };
    std::vector<Jump> jumps;
    jumps.push_back({"drive +8 dB", start});
    jumps.back().to.driveDB = 8;
    jumps.push_back({"output -30 dB", start});
    jumps.back().to.outputDB = -30;
    jumps.push_back({"output +12 dB", start});
    jumps.back().to.outputDB = 12;
    jumps.push_back({"mix 0", start});
    jumps.back().to.mix = 0;
    jumps.push_back({"mix 0.3 and drive -24 dB", start});
    jumps.back().to.mix = 0.3;
    jumps.back().to.driveDB = -24;
    jumps.push_back({"tone 1.5 kHz", start});
    jumps.back().to.toneHz = 1500;
    jumps.push_back({"hard to soft", start});
    jumps.back().to.mode = SaturationMode::soft;
    constexpr int frames = 1 << 15;
    for (const Jump& jump : jumps)
        for (const int block : {64, 1024}) {
            SCOPED_TRACE(std::string(jump.name) + " in calls of " + std::to_string(block));
            DistortionProcessor processor;
            processor.apply(start);
            processor.prepare(rate, 1, 1024);
            // Soft and hard agree to -70 dB at this level, so only the change itself can splatter.
            Planes planes{sine(1000, 0.05, frames)};
            run(processor, planes, block, [&](int64_t frame) {
                if (frame == frames / 2)
                    processor.apply(jump.to);
            });
            EXPECT_LE(splatterDB(planes.front()), -60);
        }
}

// Soft to hard, and tube asked for one call later: the first 20 ms crossfade runs to its end
// before the second starts. Measured against each curve run alone, as RMS differences over
// short windows.
TEST(DistortionProcessor, ModeChangesCrossfadeOneAfterTheOther) {
    constexpr int frames = 24000, block = 64, change = 6400;
    const auto input = sine(440, 0.5, frames);
    const DistortionSettings soft{.driveDB = 12, .outputDB = 0};
    DistortionSettings hard = soft, tube = soft;
    hard.mode = SaturationMode::hard;
    tube.mode = SaturationMode::tube;
    const auto alone = [&](const DistortionSettings& settings) {
        return processed(settings, input, block);
    };
    const auto softOut = alone(soft), hardOut = alone(hard), tubeOut = alone(tube);

    DistortionProcessor processor;
    processor.apply(soft);
    processor.prepare(rate, 1, 1024);
    Planes planes{input};
    run(processor, planes, block, [&](int64_t frame) {
        if (frame == change)
            processor.apply(hard);
        if (frame == change + block)
            processor.apply(tube);
    });
    const auto& out = planes.front();
    // Without the window's mean: the tube's DC, which the others lack, leaves the blocker slowly.
    const auto rms = [&](const std::vector<float>& reference, int from, int to) {
        double mean = 0, sum = 0;
        for (int i = from; i < to; ++i)
            mean += out[static_cast<size_t>(i)] - reference[static_cast<size_t>(i)];
        mean /= to - from;
        for (int i = from; i < to; ++i)
            sum += std::pow(out[static_cast<size_t>(i)] - reference[static_cast<size_t>(i)] - mean, 2);
        return std::sqrt(sum / (to - from));
    };
    const int fade = 960, start = change + 47;
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + start - 40, softOut.begin()));
    // Halfway into the first fade both curves are heard; at its end only hard.
    EXPECT_GT(rms(softOut, start + 400, start + 560), 0.2 * rms(hardOut, start - 2000, start - 1000) + 1e-3);
    EXPECT_LT(rms(hardOut, start + fade - 60, start + fade), 0.02);
    EXPECT_GT(rms(tubeOut, start + fade - 60, start + fade), 0.05);
    // Then hard to tube, over the next 20 ms.
    EXPECT_GT(rms(tubeOut, start + fade + 400, start + fade + 560), 0.03);
    EXPECT_LT(rms(tubeOut, start + 2 * fade + 200, start + 2 * fade + 300), 0.01);
    EXPECT_LT(rms(tubeOut, frames - 200, frames), 1e-3);
}

TEST(DistortionProcessor, BadSettingsActAsTheirFallbackOrClampedValues) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const auto input = testing::noisePlanes(1, 4000, 3).front();
    using Field = double DistortionSettings::*;
    struct Case {
        Field field;
        double bad;
        double same;
    };
    const Case cases[] = {
        {&DistortionSettings::driveDB, nan, 0},     {&DistortionSettings::driveDB, inf, 0},
        {&DistortionSettings::driveDB, 1e300, 60},  {&DistortionSettings::driveDB, -500, -24},
        {&DistortionSettings::toneHz, nan, 20000},  {&DistortionSettings::toneHz, -inf, 20000},
        {&DistortionSettings::toneHz, 1, 20},       {&DistortionSettings::toneHz, 1e12, 21600},
        {&DistortionSettings::outputDB, nan, 0},    {&DistortionSettings::outputDB, 400, 24},
        {&DistortionSettings::outputDB, -1e9, -96}, {&DistortionSettings::mix, nan, 1},
        {&DistortionSettings::mix, -3, 0},          {&DistortionSettings::mix, 7, 1},
        {&DistortionSettings::bits, nan, 8},        {&DistortionSettings::bits, 0, 1},
        {&DistortionSettings::bits, 99, 24},        {&DistortionSettings::downsample, nan, 1},
        {&DistortionSettings::downsample, -inf, 1}, {&DistortionSettings::downsample, 1e6, 256},
    };
    for (const SaturationMode mode : {SaturationMode::tube, SaturationMode::bitcrush})
        for (const Case& test : cases) {
            SCOPED_TRACE(std::string(rawValue(mode)) + ", field value " + std::to_string(test.bad));
            DistortionSettings bad{.mode = mode, .downsample = 2.5};
            DistortionSettings good = bad;
            bad.*test.field = test.bad;
            good.*test.field = test.same;
            const auto fromBad = processed(bad, input);
            EXPECT_EQ(fromBad, processed(good, input));
            EXPECT_TRUE(
                std::all_of(fromBad.begin(), fromBad.end(), [](float x) { return std::isfinite(x); }));
        }

    // Wrong types and unknown modes never become settings.
    const auto decode = [](const std::string& record) {
        return nlohmann::json::parse(R"({"distortion":{"_0":)" + record + "}}").get<EffectSettings>();
    };
    EXPECT_NO_THROW(decode(
        R"({"mode":"Tube","driveDB":12,"toneHz":9000,"outputDB":-6,"mix":1,"bits":8,"downsample":1})"));
    for (const char* bad : {
             R"({"mode":"Fuzz","driveDB":12,"toneHz":9000,"outputDB":-6,"mix":1,"bits":8,"downsample":1})",
             R"({"mode":3,"driveDB":12,"toneHz":9000,"outputDB":-6,"mix":1,"bits":8,"downsample":1})",
             R"({"mode":"Tube","driveDB":"12","toneHz":9000,"outputDB":-6,"mix":1,"bits":8,"downsample":1})",
             R"({"mode":"Tube","driveDB":12,"toneHz":null,"outputDB":-6,"mix":1,"bits":8,"downsample":1})",
             R"({"mode":"Tube","driveDB":12,"toneHz":9000,"outputDB":-6,"mix":true,"bits":8,"downsample":1})",
             R"({"mode":"Tube","driveDB":12,"toneHz":9000,"outputDB":[],"mix":1,"bits":8,"downsample":1})",
             R"({"mode":"Tube","driveDB":12,"toneHz":9000,"outputDB":-6,"mix":1,"bits":8})",
         })
        EXPECT_THROW(decode(bad), nlohmann::json::exception) << bad;
}

// The crusher's steps, built here from where multiples of the factor fall, then the DC blocker
// and the low-pass as plain difference equations: the output must be that, 47 frames late.
TEST(DistortionProcessor, CrusherQuantisesAndHoldsAtTheSameDelay) {
    const auto input = testing::noisePlanes(1, 3000, 8).front();
    const double toneHz = 0.45 * rate;
    const double w = 2 * pi * toneHz / rate, c = std::cos(w), alpha = std::sin(w) / std::sqrt(2.0);
    const double a0 = 1 + alpha, b0 = (1 - c) / 2 / a0, b1 = (1 - c) / a0, a1 = -2 * c / a0,
                 a2 = (1 - alpha) / a0;
    const double r = std::exp(-2 * pi * 5 / rate);
    for (const double bits : {1.0, 3.0})
        for (const double factor : {1.0, 2.5}) {
            SCOPED_TRACE(std::to_string(bits) + " bits, factor " + std::to_string(factor));
            const double drive = std::pow(10.0, 3.0 / 20);
            const DistortionSettings settings{.mode = SaturationMode::bitcrush,
                                              .driveDB = 3,
                                              .toneHz = 1e9,
                                              .outputDB = 0,
                                              .mix = 1,
                                              .bits = bits,
                                              .downsample = factor};
            const auto output = processed(settings, input, 100);
            const double levels = std::pow(2.0, bits - 1);
            double held = 0, dcX = 0, dcY = 0, bx1 = 0, bx2 = 0, by1 = 0, by2 = 0;
            // The hold grid counts output frames from the reset; it samples the input 47 late.
            for (size_t n = 0; n < output.size(); ++n) {
                const double m = std::ceil((static_cast<double>(n) - 1) / factor + 1e-12);
                if (m * factor <= static_cast<double>(n)) {
                    const float late = n < 47 ? 0.0f : input[n - 47];
                    const float v = std::clamp(late * static_cast<float>(drive), -1.0f, 1.0f);
                    held = std::trunc(static_cast<float>(levels) * v) / static_cast<float>(levels);
                }
                const double blocked = r * dcY + held - dcX;
                dcX = held;
                dcY = blocked;
                const double y = b0 * blocked + b1 * bx1 + b0 * bx2 - a1 * by1 - a2 * by2;
                bx2 = bx1;
                bx1 = blocked;
                by2 = by1;
                by1 = y;
                ASSERT_NEAR(output[n], y, 2e-5) << n;
            }
        }
}

TEST(DistortionProcessor, ChannelsRunApartAndThoseBeyondEightPassUnchanged) {
    const DistortionSettings settings{.mode = SaturationMode::tube, .driveDB = 20, .mix = 0.7};
    const Planes input = testing::noisePlanes(10, 3000, 4);
    DistortionProcessor processor;
    processor.apply(settings);
    processor.prepare(rate, 10, 256);
    Planes planes = input;
    std::array<float*, 10> pointers{};
    for (size_t c = 0; c < planes.size(); ++c)
        pointers.at(c) = planes[c].data();
    const ChannelSpan whole(ChannelPointers(pointers), 3000);
    const testing::AllocationCounter counter;
    for (int done = 0; done < 3000; done += 100)
        processor.process(whole.frames(done, 100));
    EXPECT_EQ(counter.count(), 0);
    for (int c = 0; c < 8; ++c)
        EXPECT_EQ(planes[static_cast<size_t>(c)], processed(settings, input[static_cast<size_t>(c)], 100))
            << c;
    EXPECT_EQ(planes[8], input[8]);
    EXPECT_EQ(planes[9], input[9]);
}

} // namespace
} // namespace harlune
