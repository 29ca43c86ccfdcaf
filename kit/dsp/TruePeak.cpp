#include "dsp/TruePeak.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace harlune {

namespace {

constexpr int tapCount = 24;

double besselI0(double z) {
    double sum = 1;
    double term = 1;
    for (int n = 1; n < 64; ++n) {
        term = term * (z / 2) / n;
        sum += term * term;
        if (term * term < sum * 1e-17)
            break;
    }
    return sum;
}

// The phase kernels: `P` phases of 24 taps, 8 (SSE) or 16 (AVX) positions per step, vectorised across
// positions. With `curve` null they give the largest magnitude; otherwise they raise `curve` per position.

using Float4 = float __attribute__((vector_size(16)));

inline Float4 load4(const float* p) {
    Float4 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline Float4 abs4(Float4 v) {
    return v < 0 ? -v : v;
}
inline Float4 max4(Float4 a, Float4 b) {
    return a > b ? a : b;
}

// One position of one phase, summed in the order the vector kernels use, fused or not like them,
// so that a position gives the same value whether it falls in a vector step or in a tail.
template <bool fused> float scalarPhase(const float* taps, const float* x) {
    float sum = 0;
    for (int k = 0; k < tapCount; ++k)
        sum = fused ? std::fma(x[k], taps[k], sum) : sum + x[k] * taps[k];
    return sum;
}

template <int P, bool fused>
float scalarTail(const float* taps, const float* x, int from, int count, float* curve) {
    float best = 0;
    for (int i = from; i < count; ++i) {
        float m = curve ? curve[i] : 0.0f;
        for (int p = 0; p < P; ++p)
            m = std::max(m, std::fabs(scalarPhase<fused>(taps + p * tapCount, x + i)));
        if (curve)
            curve[i] = m;
        best = std::max(best, m);
    }
    return best;
}

template <int P> float phasesGeneric(const float* taps, const float* x, int count, float* curve) {
    Float4 best{};
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        Float4 a[P]{}, b[P]{};
        for (int k = 0; k < tapCount; ++k) {
            const Float4 x0 = load4(x + i + k);
            const Float4 x1 = load4(x + i + k + 4);
            for (int p = 0; p < P; ++p) {
                const float t = taps[p * tapCount + k];
                a[p] += x0 * t;
                b[p] += x1 * t;
            }
        }
        Float4 ma = abs4(a[0]), mb = abs4(b[0]);
        for (int p = 1; p < P; ++p) {
            ma = max4(ma, abs4(a[p]));
            mb = max4(mb, abs4(b[p]));
        }
        if (curve) {
            ma = max4(ma, load4(curve + i));
            mb = max4(mb, load4(curve + i + 4));
            std::memcpy(curve + i, &ma, sizeof ma);
            std::memcpy(curve + i + 4, &mb, sizeof mb);
        }
        best = max4(best, max4(ma, mb));
    }
    float result = scalarTail<P, false>(taps, x, i, count, curve);
    for (int lane = 0; lane < 4; ++lane)
        result = std::max(result, best[lane]);
    return result;
}

#if defined(__x86_64__)
template <int P>
__attribute__((target("avx2,fma"))) float phasesAVX2(const float* taps, const float* x, int count,
                                                     float* curve) {
    const __m256 signMask = _mm256_set1_ps(-0.0f);
    __m256 best = _mm256_setzero_ps();
    int i = 0;
    for (; i + 16 <= count; i += 16) {
        __m256 a[P], b[P];
        for (int p = 0; p < P; ++p)
            a[p] = b[p] = _mm256_setzero_ps();
        for (int k = 0; k < tapCount; ++k) {
            const __m256 x0 = _mm256_loadu_ps(x + i + k);
            const __m256 x1 = _mm256_loadu_ps(x + i + k + 8);
            for (int p = 0; p < P; ++p) {
                const __m256 t = _mm256_broadcast_ss(taps + p * tapCount + k);
                a[p] = _mm256_fmadd_ps(x0, t, a[p]);
                b[p] = _mm256_fmadd_ps(x1, t, b[p]);
            }
        }
        __m256 ma = _mm256_andnot_ps(signMask, a[0]);
        __m256 mb = _mm256_andnot_ps(signMask, b[0]);
        for (int p = 1; p < P; ++p) {
            ma = _mm256_max_ps(ma, _mm256_andnot_ps(signMask, a[p]));
            mb = _mm256_max_ps(mb, _mm256_andnot_ps(signMask, b[p]));
        }
        if (curve) {
            ma = _mm256_max_ps(ma, _mm256_loadu_ps(curve + i));
            mb = _mm256_max_ps(mb, _mm256_loadu_ps(curve + i + 8));
            _mm256_storeu_ps(curve + i, ma);
            _mm256_storeu_ps(curve + i + 8, mb);
        }
        best = _mm256_max_ps(best, _mm256_max_ps(ma, mb));
    }
    alignas(32) float lanes[8];
    _mm256_store_ps(lanes, best);
    float result = scalarTail<P, true>(taps, x, i, count, curve);
    for (const float lane : lanes)
        result = std::max(result, lane);
    return result;
}
#endif

using PhaseKernel = float (*)(const float*, const float*, int, float*);

struct Kernels {
    PhaseKernel one;
    PhaseKernel three;
};

Kernels chooseKernels() {
#if defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"))
        return {phasesAVX2<1>, phasesAVX2<3>};
#endif
    return {phasesGeneric<1>, phasesGeneric<3>};
}

// The taps of all phases, one after another, as the kernels read them.
float runPhases(const TruePeakInterpolator& interpolator, const float* x, int count, float* curve) {
    const auto phaseCount = interpolator.phases.size();
    if (phaseCount == 0 || count <= 0)
        return 0;
    float taps[3 * tapCount];
    for (size_t p = 0; p < phaseCount; ++p)
        std::copy_n(interpolator.phases[p].data(), tapCount, taps + p * tapCount);
    static const Kernels kernels = chooseKernels();
    if (phaseCount == 3)
        return kernels.three(taps, x, count, curve);
    return kernels.one(taps, x, count, curve);
}

} // namespace

TruePeakInterpolator::TruePeakInterpolator(double sampleRate) {
    factor = sampleRate < 96000 ? 4 : sampleRate < 192000 ? 2 : 1;
    double bound = 1;
    for (int p = 1; p < factor; ++p) {
        double tap[tapCount];
        double sum = 0;
        for (int k = 0; k < tapCount; ++k) {
            const double x = static_cast<double>(p) / factor - (k - 11);
            const double pix = std::numbers::pi * x;
            const double sinc = x == 0 ? 1.0 : std::sin(pix) / pix;
            const double a = x / 12;
            const double window = std::fabs(a) >= 1 ? 0.0 : besselI0(6 * std::sqrt(1 - a * a)) / besselI0(6);
            tap[k] = sinc * window;
            sum += tap[k];
        }
        std::vector<float> stored(tapCount);
        double magnitude = 0, storedMagnitude = 0;
        for (int k = 0; k < tapCount; ++k) {
            tap[k] /= sum;
            stored[static_cast<size_t>(k)] = static_cast<float>(tap[k]);
            magnitude += std::fabs(tap[k]);
            storedMagnitude += std::fabs(static_cast<double>(stored[static_cast<size_t>(k)]));
        }
        bound = std::max({bound, magnitude, storedMagnitude});
        phases.push_back(std::move(stored));
    }
    // Rounded up, so that the float bound still bounds what the float filters can do.
    gainBound = std::nextafter(static_cast<float>(bound), 4.0f);
    if (factor == 1)
        gainBound = 1;
}

float maximumMagnitude(std::span<const float> x) {
    float best = 0;
    const float* data = x.data();
    const auto count = x.size();
#pragma omp simd reduction(max : best)
    for (size_t i = 0; i < count; ++i)
        best = std::max(best, std::fabs(data[i]));
    return best;
}

float interpolatedMaximum(const TruePeakInterpolator& interpolator, const float* x, int count) {
    return runPhases(interpolator, x, count, nullptr);
}

void raiseToInterpolated(const TruePeakInterpolator& interpolator, const float* x, int count, float* curve) {
    runPhases(interpolator, x, count, curve);
}

TruePeakDetector::TruePeakDetector(double sampleRate)
    : interpolator_(sampleRate),
      work_(std::make_unique<float[]>(static_cast<size_t>(interpolator_.taps - 1 + workCapacity))) {}

void TruePeakDetector::reset() {
    std::fill_n(work_.get(), interpolator_.taps - 1, 0.0f);
    samplePeak = 0;
    interPeak = 0;
}

void TruePeakDetector::process(std::span<const float> samples) {
    if (samples.empty())
        return;
    samplePeak = std::max(samplePeak, maximumMagnitude(samples));
    if (interpolator_.phases.empty())
        return;

    const int history = interpolator_.taps - 1;
    const int centre = interpolator_.taps / 2 - 1;
    constexpr int pieceLength = 1024;
    float* work = work_.get();
    for (size_t done = 0; done < samples.size();) {
        const int length = static_cast<int>(std::min<size_t>(workCapacity, samples.size() - done));
        std::copy_n(samples.data() + done, length, work + history);

        float best = maximumMagnitude({work + centre, static_cast<size_t>(length)});
        const float known = std::max(interPeak, best);
        for (int offset = 0; offset < length; offset += pieceLength) {
            const int n = std::min(pieceLength, length - offset);
            if (known > 0) {
                const float reach = maximumMagnitude({work + offset, static_cast<size_t>(n + history)});
                if (interpolator_.gainBound * reach <= known)
                    continue; // nothing in this piece can set a new peak
            }
            best = std::max(best, interpolatedMaximum(interpolator_, work + offset, n));
        }
        interPeak = std::max(interPeak, best);
        std::copy_n(work + length, history, work);
        done += static_cast<size_t>(length);
    }
}

} // namespace harlune
