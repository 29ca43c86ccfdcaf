#include "dsp/VectorMath.h"

#include "base/Vectorize.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace harlune::vec {

HARLUNE_VECTOR_CLONES void expInPlace(float* x, int64_t count) {
    // e^x = 2^n · e^r with n = round(x / ln 2) and |r| <= ln 2 / 2; e^r by its Taylor series to
    // degree 7 (truncation below 6e-9). Rounding uses the 1.5·2^23 trick, which plain IEEE adds
    // keep exact, and 2^n is built in the exponent bits.
    constexpr float log2e = 1.44269504088896341f;
    constexpr float ln2High = 0.693359375f; // exact in 10 bits: r's first part has no error
    constexpr float ln2Low = -2.12194440e-4f;
    constexpr float roundingMagic = 12582912.0f; // 1.5 * 2^23
    constexpr float lowest = -87.0f;
    constexpr float highest = 88.0f;
#pragma omp simd
    for (int64_t i = 0; i < count; ++i) {
        float v = x[i];
        v = v < lowest ? lowest : v;
        v = v > highest ? highest : v;
        const float shifted = v * log2e + roundingMagic;
        const float n = shifted - roundingMagic;
        const float r = (v - n * ln2High) - n * ln2Low;
        float p = 1.0f / 5040.0f;
        p = p * r + 1.0f / 720.0f;
        p = p * r + 1.0f / 120.0f;
        p = p * r + 1.0f / 24.0f;
        p = p * r + 1.0f / 6.0f;
        p = p * r + 0.5f;
        p = p * r + 1.0f;
        p = p * r + 1.0f;
        const int32_t exponent = std::bit_cast<int32_t>(shifted) - std::bit_cast<int32_t>(roundingMagic);
        const float power = std::bit_cast<float>((exponent + 127) << 23);
        // A NaN fails both comparisons above and so arrives here unchanged in `v`.
        x[i] = v == v ? p * power : v;
    }
}

HARLUNE_VECTOR_CLONES void scale(float* x, int64_t count, float factor) {
    for (int64_t i = 0; i < count; ++i)
        x[i] *= factor;
}

HARLUNE_VECTOR_CLONES void multiply(float* __restrict x, const float* __restrict y, int64_t count) {
    for (int64_t i = 0; i < count; ++i)
        x[i] *= y[i];
}

HARLUNE_VECTOR_CLONES void ramp(float* x, int64_t count, float start, float step) {
    // A 32-bit index converts to float in one vector instruction; runs beyond 2^31 frames (over
    // twelve hours at 48 kHz) take the slow loop.
    if (count <= INT32_MAX) {
        const auto n = static_cast<int32_t>(count);
        for (int32_t i = 0; i < n; ++i)
            x[i] = start + static_cast<float>(i) * step;
        return;
    }
    for (int64_t i = 0; i < count; ++i)
        x[i] = start + static_cast<float>(i) * step;
}

void fill(float* x, int64_t count, float value) {
    for (int64_t i = 0; i < count; ++i)
        x[i] = value;
}

HARLUNE_VECTOR_CLONES void addScalar(float* x, int64_t count, float value) {
    for (int64_t i = 0; i < count; ++i)
        x[i] += value;
}

HARLUNE_VECTOR_CLONES void add(float* __restrict x, const float* __restrict y, int64_t count) {
    for (int64_t i = 0; i < count; ++i)
        x[i] += y[i];
}

void reverse(float* x, int64_t count) {
    std::reverse(x, x + count);
}

HARLUNE_VECTOR_CLONES float sum(const float* x, int64_t count) {
    float total = 0;
#pragma omp simd reduction(+ : total)
    for (int64_t i = 0; i < count; ++i)
        total += x[i];
    return total;
}

} // namespace harlune::vec
