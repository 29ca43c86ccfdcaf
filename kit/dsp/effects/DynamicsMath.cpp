#include "dsp/effects/DynamicsMath.h"

#include "base/Vectorize.h"
#include "dsp/VectorMath.h"

#include <bit>

namespace harlune::dynamicsMath {

HARLUNE_VECTOR_CLONES void magnitude(float* __restrict out, const float* __restrict in, int64_t count) {
    for (int64_t i = 0; i < count; ++i)
        out[i] = in[i] < 0 ? -in[i] : in[i];
}

HARLUNE_VECTOR_CLONES void maxMagnitude(float* __restrict out, const float* __restrict in, int64_t count) {
    for (int64_t i = 0; i < count; ++i) {
        const float v = in[i] < 0 ? -in[i] : in[i];
        out[i] = v > out[i] ? v : out[i];
    }
}

HARLUNE_VECTOR_CLONES void levelDB(float* x, int64_t count, float floor, float dbPerOctave) {
    // log2(v) = e + log2(m) with v = m * 2^e, m in [sqrt(1/2), sqrt(2)); ln(m) by the odd series
    // in t = (m - 1) / (m + 1), |t| <= 0.172, to t^9 (truncation under 4e-10).
    constexpr float ceiling = 1e30f;
    constexpr float sqrt2 = 1.41421356f;
    constexpr float log2e = 1.44269504f;
    for (int64_t i = 0; i < count; ++i) {
        float v = x[i];
        v = v > floor ? v : floor; // NaN fails the comparison and takes the floor
        v = v < ceiling ? v : ceiling;
        const int32_t bits = std::bit_cast<int32_t>(v);
        float e = static_cast<float>((bits >> 23) - 127);
        float m = std::bit_cast<float>((bits & 0x007fffff) | 0x3f800000);
        const bool high = m > sqrt2;
        m = high ? m * 0.5f : m;
        e = high ? e + 1.0f : e;
        const float t = (m - 1.0f) / (m + 1.0f);
        const float t2 = t * t;
        float p = 1.0f / 9.0f;
        p = p * t2 + 1.0f / 7.0f;
        p = p * t2 + 1.0f / 5.0f;
        p = p * t2 + 1.0f / 3.0f;
        p = p * t2 + 1.0f;
        x[i] = (e + 2.0f * t * p * log2e) * dbPerOctave;
    }
}

HARLUNE_VECTOR_CLONES void curveReductionDB(float* x, int64_t count, float thresholdDB, float slope,
                                            float kneeDB) {
    const float knee = kneeDB > 0 ? kneeDB : 0.0f;
    const float half = knee / 2;
    const float inverse = knee > 0 ? 1 / (2 * knee) : 0.0f;
    const float bend = slope - 1;
    for (int64_t i = 0; i < count; ++i) {
        const float over = x[i] - thresholdDB;
        float u = over + half;
        u = u > 0 ? u : 0.0f;
        u = u < knee ? u : knee;
        float beyond = over - half;
        beyond = beyond > 0 ? beyond : 0.0f;
        x[i] = bend * (u * u * inverse + beyond);
    }
}

void exp2InPlace(float* x, int64_t count) {
    vec::scale(x, count, 0.693147181f);
    vec::expInPlace(x, count);
}

HARLUNE_VECTOR_CLONES void wetGain(float* x, int64_t count, float mix) {
    const float dry = 1.0f - mix;
    for (int64_t i = 0; i < count; ++i)
        x[i] = x[i] * mix + dry;
}

HARLUNE_VECTOR_CLONES void wetGainCurve(float* __restrict x, const float* __restrict mix, int64_t count) {
    for (int64_t i = 0; i < count; ++i)
        x[i] = 1.0f + (x[i] - 1.0f) * mix[i];
}

} // namespace harlune::dynamicsMath
