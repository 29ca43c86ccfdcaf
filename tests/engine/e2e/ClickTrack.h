#pragma once

// A signal that lines up in exactly one place: a quiet sine with full clicks at irregular
// intervals, so that a recording of it can be aligned by cross-correlation without ambiguity.
// Shared by the tool that plays it and the checks that find it in a take.
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

namespace harlune::e2e {

/// `lead` seconds of silence, `seconds` of a 440 Hz sine at 0.25 with a click of 0.6 every
/// 0.1–0.3 s, then 0.3 s of silence; the same on every channel, at `rate` Hz.
inline std::vector<float> clickTrack(double rate, double lead, double seconds) {
    const auto leadFrames = static_cast<int64_t>(lead * rate);
    const auto bodyFrames = static_cast<int64_t>(seconds * rate);
    std::vector<float> plane(static_cast<size_t>(leadFrames + bodyFrames + static_cast<int64_t>(0.3 * rate)));
    for (int64_t i = 0; i < bodyFrames; ++i)
        plane[static_cast<size_t>(leadFrames + i)] =
            static_cast<float>(0.25 * std::sin(2 * std::numbers::pi * 440 * static_cast<double>(i) / rate));
    uint32_t state = 12345;
    for (int64_t at = static_cast<int64_t>(0.05 * rate); at < bodyFrames;) {
        plane[static_cast<size_t>(leadFrames + at)] += 0.6f;
        state = state * 1664525u + 1013904223u; // a fixed pseudo-random spacing
        at += static_cast<int64_t>((0.1 + 0.2 * (state >> 8) / 16777216.0) * rate);
    }
    return plane;
}

/// The offset of `signal` inside `take` where their cross-correlation peaks, searched around
/// where the first click of each lies; -1 when the take holds no click.
inline int64_t alignmentOffset(const std::vector<float>& take, const std::vector<float>& signal) {
    const auto firstClick = [](const std::vector<float>& plane) -> int64_t {
        for (size_t i = 0; i < plane.size(); ++i)
            if (std::fabs(plane[i]) > 0.55f)
                return static_cast<int64_t>(i);
        return -1;
    };
    const int64_t inTake = firstClick(take);
    const int64_t inSignal = firstClick(signal);
    if (inTake < 0 || inSignal < 0)
        return -1;
    int64_t best = -1;
    double bestScore = -1e300;
    for (int64_t offset = inTake - inSignal - 256; offset <= inTake - inSignal + 256; ++offset) {
        double score = 0;
        for (size_t i = 0; i < signal.size(); ++i) {
            const int64_t at = offset + static_cast<int64_t>(i);
            if (at >= 0 && at < static_cast<int64_t>(take.size()))
                score += static_cast<double>(take[static_cast<size_t>(at)]) * signal[i];
        }
        if (score > bestScore) {
            bestScore = score;
            best = offset;
        }
    }
    return best;
}

/// The energy of `take` minus `signal` placed at `offset`, relative to the signal's, in dB; the
/// take outside the signal counts as residual too (it should be silence).
inline double residualDB(const std::vector<float>& take, const std::vector<float>& signal, int64_t offset) {
    double error = 0;
    double energy = 0;
    for (size_t i = 0; i < take.size(); ++i) {
        const int64_t j = static_cast<int64_t>(i) - offset;
        const double expected =
            j >= 0 && j < static_cast<int64_t>(signal.size()) ? signal[static_cast<size_t>(j)] : 0.0;
        error += (take[i] - expected) * (take[i] - expected);
    }
    for (float s : signal)
        energy += static_cast<double>(s) * s;
    return 10 * std::log10(std::max(error, 1e-30) / energy);
}

} // namespace harlune::e2e
