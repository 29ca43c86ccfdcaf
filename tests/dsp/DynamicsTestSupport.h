#pragma once

// Shared by the compressor and gate tests: running planes through a processor in callbacks, and
// a spectral check for clicks.
#include "base/EffectProcessor.h"
#include "dsp/effects/ConfigurableEffect.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <fftw3.h>
#include <functional>
#include <numbers>
#include <vector>

namespace harlune::testing {

using Planes = std::vector<std::vector<float>>;

/// Processes frames `from ..< to` of `planes` in place, in calls of `block` frames.
inline void runFrames(EffectProcessor& processor, Planes& planes, size_t from, size_t to, int block = 256) {
    std::vector<float*> pointers;
    for (auto& plane : planes)
        pointers.push_back(plane.data());
    const ChannelSpan whole(ChannelPointers(pointers), static_cast<int>(to));
    for (auto done = static_cast<int>(from); done < static_cast<int>(to); done += block)
        processor.process(whole.frames(done, std::min(block, static_cast<int>(to) - done)));
}

inline void runAll(EffectProcessor& processor, Planes& planes, int block = 256) {
    runFrames(processor, planes, 0, planes.front().size(), block);
}

/// A steady level of `db` dBFS in every frame, as a positive DC.
inline std::vector<float> dc(double db, size_t frames) {
    return std::vector<float>(frames, static_cast<float>(std::pow(10.0, db / 20)));
}

inline std::vector<float> sine(double hz, double amplitude, double rate, size_t frames) {
    std::vector<float> out(frames);
    for (size_t i = 0; i < frames; ++i)
        out[i] = static_cast<float>(amplitude *
                                    std::sin(2 * std::numbers::pi * hz * static_cast<double>(i) / rate));
    return out;
}

/// The gain in dB that took `in` to `out`.
inline double gainDB(float in, float out) {
    return 20 * std::log10(std::abs(static_cast<double>(out) / in));
}

/// The loudest bin more than `keepHz` away from `toneHz`, in dB relative to the loudest bin of
/// all, over `n` frames from `start` under a Hann window. A click spreads energy far from the
/// tone; a smooth gain change keeps it close.
inline double worstSidebandDB(const std::vector<float>& signal, size_t start, size_t n, double rate,
                              double toneHz, double keepHz) {
    std::vector<double> in(n);
    std::vector<std::complex<double>> out(n / 2 + 1);
    const fftw_plan plan = fftw_plan_dft_r2c_1d(static_cast<int>(n), in.data(),
                                                reinterpret_cast<fftw_complex*>(out.data()), FFTW_ESTIMATE);
    for (size_t i = 0; i < n; ++i)
        in[i] =
            signal[start + i] *
            (0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(n)));
    fftw_execute(plan);
    fftw_destroy_plan(plan);
    double peak = 0, worst = 0;
    for (size_t k = 0; k < out.size(); ++k) {
        const double power = std::norm(out[k]);
        peak = std::max(peak, power);
        if (std::abs(static_cast<double>(k) * rate / static_cast<double>(n) - toneHz) > keepHz)
            worst = std::max(worst, power);
    }
    return 10 * std::log10(std::max(worst, 1e-300) / peak);
}

/// Runs a 1 kHz sine of `amplitude` at 48 kHz through `processor` for two seconds, applying
/// `before` at the start (then reset) and `after` halfway, and returns the worst sideband around
/// the change.
inline double sidebandsAcrossChange(ConfigurableEffect& processor, const EffectSettings& before,
                                    const EffectSettings& after, double amplitude, int channels = 2) {
    constexpr double rate = 48000;
    constexpr size_t frames = 96000, change = 48000, window = 16384;
    processor.apply(before);
    processor.prepare(rate, channels, 512);
    Planes planes(static_cast<size_t>(channels), sine(1000, amplitude, rate, frames));
    runFrames(processor, planes, 0, change);
    processor.apply(after);
    runFrames(processor, planes, change, frames);
    return worstSidebandDB(planes[0], change - window / 4, window, rate, 1000, 500);
}

} // namespace harlune::testing
