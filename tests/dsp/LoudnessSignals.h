#pragma once

// Test signals for the loudness and true-peak tests, synthesised in double precision.

#include "base/AudioSource.h"

#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

namespace harlune::testing {

using Planes = std::vector<std::vector<float>>;

/// One stretch of a tone sequence: a sine of `dBFS` peak level (-inf or below -300: silence).
struct Tone {
    double seconds;
    double dBFS;
};

/// A phase-continuous sine at `hz` through the stretches, the same on all `channels`. Stretch
/// borders fall at round(rate x cumulative seconds).
inline Planes toneSequence(const std::vector<Tone>& tones, int channels, double rate, double hz = 997) {
    double total = 0;
    for (const Tone& tone : tones)
        total += tone.seconds;
    std::vector<float> plane(static_cast<size_t>(std::llround(total * rate)));
    double start = 0;
    for (const Tone& tone : tones) {
        const auto from = static_cast<size_t>(std::llround(start * rate));
        start += tone.seconds;
        const auto to = std::min(plane.size(), static_cast<size_t>(std::llround(start * rate)));
        const double amplitude = tone.dBFS < -300 ? 0.0 : std::pow(10.0, tone.dBFS / 20);
        for (size_t i = from; i < to; ++i)
            plane[i] = static_cast<float>(
                amplitude * std::sin(2 * std::numbers::pi * hz * static_cast<double>(i) / rate));
    }
    return Planes(static_cast<size_t>(channels), plane);
}

/// A sine of `amplitude` at `hz`, starting at `phaseDegrees`. With `fadeSeconds`, it rises and
/// falls by a raised cosine at both ends, so that no switching edge rings in an interpolator.
inline std::vector<float> sine(int64_t frames, double rate, double hz, double amplitude,
                               double phaseDegrees = 0, double fadeSeconds = 0) {
    std::vector<float> x(static_cast<size_t>(frames));
    const double phase = phaseDegrees * std::numbers::pi / 180;
    const double fade = fadeSeconds * rate;
    for (size_t i = 0; i < x.size(); ++i) {
        const double edge = std::min(static_cast<double>(i), static_cast<double>(x.size() - 1 - i));
        const double gain = edge < fade ? 0.5 - 0.5 * std::cos(std::numbers::pi * edge / fade) : 1.0;
        x[i] = static_cast<float>(
            gain * amplitude * std::sin(2 * std::numbers::pi * hz * static_cast<double>(i) / rate + phase));
    }
    return x;
}

/// Pink-ish noise (Paul Kellett's filter on white noise), scaled to about `rmsDBFS`.
inline std::vector<float> pinkNoise(int64_t frames, uint32_t seed, double rmsDBFS = -20) {
    std::mt19937 generator(seed);
    std::normal_distribution<double> white(0.0, 1.0);
    double b0 = 0, b1 = 0, b2 = 0, b3 = 0, b4 = 0, b5 = 0, b6 = 0;
    std::vector<double> y(static_cast<size_t>(frames));
    double energy = 0;
    for (auto& v : y) {
        const double w = white(generator);
        b0 = 0.99886 * b0 + w * 0.0555179;
        b1 = 0.99332 * b1 + w * 0.0750759;
        b2 = 0.96900 * b2 + w * 0.1538520;
        b3 = 0.86650 * b3 + w * 0.3104856;
        b4 = 0.55000 * b4 + w * 0.5329522;
        b5 = -0.7616 * b5 - w * 0.0168980;
        v = b0 + b1 + b2 + b3 + b4 + b5 + b6 + w * 0.5362;
        b6 = w * 0.115926;
        energy += v * v;
    }
    const double scale =
        std::pow(10.0, rmsDBFS / 20) / std::sqrt(energy / std::max<double>(1, static_cast<double>(frames)));
    std::vector<float> x(y.size());
    for (size_t i = 0; i < y.size(); ++i)
        x[i] = static_cast<float>(y[i] * scale);
    return x;
}

/// Something with the shape of music: notes of a few harmonics with attack and decay, a bass
/// line, noisy percussion, and sections whose level moves by several dB.
inline std::vector<float> musicLike(int64_t frames, double rate, uint32_t seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    std::vector<float> x(static_cast<size_t>(frames));
    const auto noteFrames = static_cast<int64_t>(rate * 0.25);
    const auto sectionFrames = static_cast<int64_t>(rate * 2);
    double section = 0.3;
    double hz = 220, bass = 55;
    double phase[4] = {}, bassPhase = 0;
    for (int64_t i = 0; i < frames; ++i) {
        if (i % sectionFrames == 0)
            section = std::pow(10.0, (-18 + 12 * uniform(generator)) / 20);
        if (i % noteFrames == 0) {
            hz = 110 * std::pow(2.0, std::floor(uniform(generator) * 36) / 12);
            if (i % (noteFrames * 4) == 0)
                bass = 41.2 * std::pow(2.0, std::floor(uniform(generator) * 12) / 12);
        }
        const double t = static_cast<double>(i % noteFrames) / rate;
        const double envelope = std::min(1.0, t / 0.01) * std::exp(-t * 6);
        double v = 0;
        for (int k = 0; k < 4; ++k) {
            phase[k] += 2 * std::numbers::pi * hz * (k + 1) / rate;
            v += std::sin(phase[k]) / (k + 1);
        }
        bassPhase += 2 * std::numbers::pi * bass / rate;
        const double drum = (i % (noteFrames * 2)) < static_cast<int64_t>(rate * 0.03)
                                ? (uniform(generator) * 2 - 1) * 0.8
                                : 0.0;
        x[static_cast<size_t>(i)] =
            static_cast<float>(section * (0.5 * envelope * v + 0.6 * std::sin(bassPhase) + drum));
    }
    return x;
}

} // namespace harlune::testing
