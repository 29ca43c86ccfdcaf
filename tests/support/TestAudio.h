#pragma once

#include "core/AudioContent.h"

#include <cstdint>
#include <random>
#include <vector>

namespace harlune::testing {

using Planes = std::vector<std::vector<float>>;

/// Deterministic noise in -1...1, one plane per channel.
inline Planes noisePlanes(int channels, int64_t frames, uint32_t seed = 1) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    Planes planes(static_cast<size_t>(channels), std::vector<float>(static_cast<size_t>(frames)));
    for (auto& plane : planes)
        for (auto& x : plane)
            x = uniform(generator);
    return planes;
}

/// Every frame of a content, read back as planes.
inline Planes planesOf(const AudioSource& source) {
    return source.readChannels(source.fullRange());
}

/// A content whose segments are cut at the given frames (each a window on blocks of `planes`),
/// to exercise walks across segment borders.
inline AudioContent fragmented(const Planes& planes, double rate, const std::vector<int64_t>& cuts) {
    AudioContent whole(planes, rate);
    AudioContent result(static_cast<int>(planes.size()), rate);
    int64_t previous = 0;
    std::vector<int64_t> ends = cuts;
    ends.push_back(whole.frameCount());
    for (const int64_t end : ends) {
        // Build each piece from its own slice so the windows land at odd offsets in the blocks.
        result.append(whole.slice({previous, end}));
        previous = end;
    }
    return result;
}

} // namespace harlune::testing
