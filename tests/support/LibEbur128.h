#pragma once

#include "support/TestAudio.h"

#include <cmath>
#include <ebur128.h>
#include <vector>

namespace harlune::testing {

/// Integrated loudness by libebur128, an implementation independent of ours; NaN if it refuses
/// the format. Programs that include this link libebur128.
inline double libebur128Integrated(const Planes& planes, double rate) {
    const auto channels = static_cast<unsigned>(planes.size());
    ebur128_state* state = ebur128_init(channels, static_cast<unsigned long>(rate), EBUR128_MODE_I);
    if (!state)
        return std::nan("");
    const size_t frames = planes[0].size();
    std::vector<float> interleaved(frames * channels);
    for (size_t i = 0; i < frames; ++i)
        for (size_t c = 0; c < channels; ++c)
            interleaved[i * channels + c] = planes[c][i];
    ebur128_add_frames_float(state, interleaved.data(), frames);
    double loudness = 0;
    ebur128_loudness_global(state, &loudness);
    ebur128_destroy(&state);
    return loudness;
}

/// Loudness by libebur128 of the last `windowMs` milliseconds (at most 3000) of the first
/// `frames` frames of `planes`; NaN if it refuses the format.
inline double libebur128Window(const Planes& planes, size_t frames, double rate, unsigned long windowMs) {
    const auto channels = static_cast<unsigned>(planes.size());
    ebur128_state* state = ebur128_init(channels, static_cast<unsigned long>(rate), EBUR128_MODE_S);
    if (!state)
        return std::nan("");
    std::vector<float> interleaved(frames * channels);
    for (size_t i = 0; i < frames; ++i)
        for (size_t c = 0; c < channels; ++c)
            interleaved[i * channels + c] = planes[c][i];
    ebur128_add_frames_float(state, interleaved.data(), frames);
    double loudness = std::nan("");
    ebur128_loudness_window(state, windowMs, &loudness);
    ebur128_destroy(&state);
    return loudness;
}

} // namespace harlune::testing
