#pragma once

// One hour of stereo 48 kHz test audio for the loudness benchmarks, built quickly (recurrences
// and a wavetable rather than a sine per sample) and the same in every program that uses it.

#include <cmath>
#include <cstdint>
#include <numbers>
#include <string_view>
#include <vector>

namespace harlune::bench {

using Planes = std::vector<std::vector<float>>;

inline constexpr double benchRate = 48000;
inline constexpr int64_t hourFrames = 3600 * 48000;

struct FastRandom {
    uint64_t state;
    // Uniform in -1...1.
    double next() {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return static_cast<double>(static_cast<int64_t>(state)) / 9.223372036854775808e18;
    }
};

/// Pink noise (Paul Kellett's filter) at about -20 dBFS RMS.
inline std::vector<float> benchPinkNoise(int64_t frames, uint64_t seed) {
    FastRandom random{seed * 0x9E3779B97F4A7C15ull + 1};
    std::vector<float> x(static_cast<size_t>(frames));
    double b0 = 0, b1 = 0, b2 = 0, b3 = 0, b4 = 0, b5 = 0, b6 = 0;
    for (auto& v : x) {
        const double w = (random.next() + random.next() + random.next()) * 0.6;
        b0 = 0.99886 * b0 + w * 0.0555179;
        b1 = 0.99332 * b1 + w * 0.0750759;
        b2 = 0.96900 * b2 + w * 0.1538520;
        b3 = 0.86650 * b3 + w * 0.3104856;
        b4 = 0.55000 * b4 + w * 0.5329522;
        b5 = -0.7616 * b5 - w * 0.0168980;
        v = static_cast<float>(0.03 * (b0 + b1 + b2 + b3 + b4 + b5 + b6 + w * 0.5362));
        b6 = w * 0.115926;
    }
    return x;
}

/// Notes of four harmonics with attack and decay, a bass line, noise hits, and 2 s sections
/// whose level moves over 12 dB: the level statistics of popular music, roughly.
inline std::vector<float> benchMusic(int64_t frames, uint64_t seed) {
    constexpr int tableSize = 4096;
    std::vector<double> table(tableSize + 1);
    for (int i = 0; i <= tableSize; ++i) {
        const double t = 2 * std::numbers::pi * i / tableSize;
        table[static_cast<size_t>(i)] =
            std::sin(t) + std::sin(2 * t) / 2 + std::sin(3 * t) / 3 + std::sin(4 * t) / 4;
    }
    const auto lookup = [&](double phase) { // phase in 0...1
        const double at = phase * tableSize;
        const auto i = static_cast<size_t>(at);
        return table[i] + (at - static_cast<double>(i)) * (table[i + 1] - table[i]);
    };
    FastRandom random{seed * 0x9E3779B97F4A7C15ull + 7};
    std::vector<float> x(static_cast<size_t>(frames));
    const auto note = static_cast<int64_t>(benchRate / 4);
    const auto section = static_cast<int64_t>(benchRate * 2);
    double level = 0.3, step = 0, bassStep = 0, phase = 0, bassPhase = 0, envelope = 0;
    const double decay = std::exp(-6 / benchRate);
    for (int64_t i = 0; i < frames; ++i) {
        if (i % section == 0)
            level = std::pow(10.0, (-18 + 6 * (random.next() + 1)) / 20);
        if (i % note == 0) {
            step = 110 * std::pow(2.0, std::floor((random.next() + 1) * 18) / 12) / benchRate;
            envelope = 1;
            if (i % (note * 4) == 0)
                bassStep = 41.2 * std::pow(2.0, std::floor((random.next() + 1) * 6) / 12) / benchRate;
        }
        envelope *= decay;
        phase += step;
        phase -= std::floor(phase);
        bassPhase += bassStep;
        bassPhase -= std::floor(bassPhase);
        const double hit = (i % (note * 2)) < 1440 ? random.next() * 0.8 : 0.0;
        x[static_cast<size_t>(i)] = static_cast<float>(
            level * (0.4 * envelope * lookup(phase) + 0.5 * lookup(bassPhase) / 2.08 + hit));
    }
    return x;
}

/// One hour, stereo: "pink" or "music".
inline Planes benchHour(std::string_view kind) {
    Planes planes;
    for (uint64_t c = 0; c < 2; ++c)
        planes.push_back(kind == "pink" ? benchPinkNoise(hourFrames, c + 1) : benchMusic(hourFrames, c + 1));
    return planes;
}

} // namespace harlune::bench
