#include "dsp/effects/SaturationCurves.h"

#include "base/Vectorize.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

namespace harlune::SaturationCurves {

namespace {

// tanh(a) = -m / (2 + m) with m = expm1(-2a), a >= 0. expm1 by the usual reduction
// -2a = n ln 2 + r, |r| <= ln 2 / 2 (ln 2 in two parts, after Cephes), a degree-7 Taylor
// polynomial for expm1(r), and 2^n (1 + p) - 1 = 2^n p + (2^n - 1), which keeps the relative
// accuracy of m where it is small. Beyond 9, tanh is 1 in float.
inline float tanhOfMagnitude(float a) noexcept {
    const float y = -2.0f * std::min(a, 9.0f);
    // Round to nearest by the 1.5 * 2^23 trick: no rounding instruction needed.
    const float n = (y * 1.44269504f + 12582912.0f) - 12582912.0f;
    const float r = (y - n * 0.693359375f) - n * -2.12194440e-4f;
    const float p =
        r *
        (1.0f + r * (0.5f + r * (1.0f / 6 +
                                 r * (1.0f / 24 + r * (1.0f / 120 + r * (1.0f / 720 + r * (1.0f / 5040)))))));
    const float scale = std::bit_cast<float>(static_cast<int32_t>((static_cast<int32_t>(n) + 127) << 23));
    const float m = scale * p + (scale - 1.0f);
    return -m / (2.0f + m);
}

inline float signedTanh(float x) noexcept {
    return std::copysign(tanhOfMagnitude(std::abs(x)), x);
}

HARLUNE_VECTOR_CLONES void softCurve(float* samples, int count) noexcept {
    for (int i = 0; i < count; ++i)
        samples[i] = signedTanh(samples[i]);
}

HARLUNE_VECTOR_CLONES void tubeCurve(float* samples, int count) noexcept {
    for (int i = 0; i < count; ++i)
        samples[i] = 1.0927327f * signedTanh(samples[i] + 0.3f) - 0.31832683f;
}

HARLUNE_VECTOR_CLONES void hardCurve(float* samples, int count) noexcept {
    for (int i = 0; i < count; ++i)
        samples[i] = std::clamp(samples[i], -1.0f, 1.0f);
}

} // namespace

float tanh(float x) noexcept {
    return signedTanh(x);
}

void shape(SaturationMode mode, float* samples, int count) noexcept {
    switch (mode) {
    case SaturationMode::soft:
        softCurve(samples, count);
        break;
    case SaturationMode::tube:
        tubeCurve(samples, count);
        break;
    case SaturationMode::hard:
        hardCurve(samples, count);
        break;
    case SaturationMode::bitcrush:
        break;
    }
}

} // namespace harlune::SaturationCurves
