#pragma once

#include <cmath>
#include <limits>

namespace harlune {

/// Copies `count` samples (`from` may equal `to`), turning NaN and infinities into silence, so
/// that one bad sample cannot poison a filter or a peak for the rest of a stream.
inline void copyFinite(const float* from, int count, float* to) {
#pragma omp simd
    for (int i = 0; i < count; ++i) {
        const float x = from[i];
        to[i] = std::fabs(x) <= std::numeric_limits<float>::max() ? x : 0.0f;
    }
}

} // namespace harlune
