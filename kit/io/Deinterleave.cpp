#include "io/Deinterleave.h"

namespace harlune {

void deinterleave(const float* interleaved, size_t frames, std::vector<std::vector<float>>& planes,
                  std::vector<std::span<const float>>& views) {
    const size_t channels = planes.size();
    // Stereo is nearly every file: a loop with a fixed stride vectorises, the general one does not.
    if (channels == 2) {
        float* left = planes[0].data();
        float* right = planes[1].data();
        for (size_t i = 0; i < frames; ++i) {
            left[i] = interleaved[2 * i];
            right[i] = interleaved[2 * i + 1];
        }
    } else {
        for (size_t c = 0; c < channels; ++c) {
            float* plane = planes[c].data();
            const float* source = interleaved + c;
            for (size_t i = 0; i < frames; ++i)
                plane[i] = source[i * channels];
        }
    }
    for (size_t c = 0; c < channels; ++c)
        views[c] = std::span<const float>(planes[c].data(), frames);
}

} // namespace harlune
