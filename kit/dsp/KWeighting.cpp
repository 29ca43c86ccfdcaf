#include "dsp/KWeighting.h"

#include <cmath>

namespace harlune {

namespace KWeighting {

BiquadCoefficients shelf(double sampleRate) {
    const double K = std::tan(5284.078578647628 / sampleRate); // 1681.974450955533 Hz
    const double Q = 0.7071752369554196;
    const double Vh = 1.5848647011308556;
    const double Vb = 1.2587209302325617;
    const double a0 = K * K + K / Q + 1;
    return {(K * K + Vb * K / Q + Vh) / a0, 2 * (K * K - Vh) / a0, (K * K - Vb * K / Q + Vh) / a0,
            2 * (K * K - 1) / a0, (K * K - K / Q + 1) / a0};
}

BiquadCoefficients highPass(double sampleRate) {
    const double K = std::tan(119.8061151453059 / sampleRate); // 38.13547087602444 Hz
    const double Q = 0.5003270373238773;
    const double a0 = K * K + K / Q + 1;
    // The numerator stays unnormalised: the reference filter has unity numerator taps.
    return {1, -2, 1, 2 * (K * K - 1) / a0, (K * K - K / Q + 1) / a0};
}

} // namespace KWeighting

KWeightingFilter::KWeightingFilter(double sampleRate)
    : setup{KWeighting::shelf(sampleRate), KWeighting::highPass(sampleRate)} {
    output_.reserve(65536);
}

std::span<const double> KWeightingFilter::process(std::span<const float> samples) {
    const int count = static_cast<int>(samples.size());
    output_.reserve(count);
    double* out = output_.pointer();
    const BiquadCoefficients s = setup[0];
    const BiquadCoefficients h = setup[1];
    // Direct form I: the two sections share the middle pair of states, and each recursion is one
    // multiply and one add deep, which keeps the loop-carried latency short.
    double x1 = delay[0], x2 = delay[1], m1 = delay[2], m2 = delay[3], y1 = delay[4], y2 = delay[5];
    for (int i = 0; i < count; ++i) {
        const float raw = samples[static_cast<size_t>(i)];
        const double x = std::isfinite(raw) ? static_cast<double>(raw) : 0.0;
        const double m = (s.b0 * x + s.b1 * x1 + s.b2 * x2 - s.a2 * m2) - s.a1 * m1;
        const double y = (h.b0 * m + h.b1 * m1 + h.b2 * m2 - h.a2 * y2) - h.a1 * y1;
        x2 = x1;
        x1 = x;
        m2 = m1;
        m1 = m;
        y2 = y1;
        y1 = y;
        out[i] = y;
    }
    delay = {x1, x2, m1, m2, y1, y2};
    return {out, static_cast<size_t>(count)};
}

} // namespace harlune
