#include "dsp/effects/HalfbandDesign.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace harlune {

namespace {

// The modified Bessel function of order 0, by its power series.
double besselI0(double x) {
    double sum = 1;
    double term = 1;
    const double quarter = x * x / 4;
    for (int n = 1; n < 64; ++n) {
        term *= quarter / (static_cast<double>(n) * n);
        sum += term;
        if (term < 1e-17 * sum)
            break;
    }
    return sum;
}

} // namespace

HalfbandDesign HalfbandDesign::make(int k, double attenuationDB) {
    const double a = attenuationDB;
    const double beta = a > 50 ? 0.1102 * (a - 8.7) : 0.5842 * std::pow(a - 21, 0.4) + 0.07886 * (a - 21);
    const int order = 4 * k + 2;
    const double i0Beta = besselI0(beta);
    std::vector<double> taps(static_cast<size_t>(2 * k + 2));
    double sum = 0;
    for (int j = 0; j <= 2 * k + 1; ++j) {
        const int m = 2 * j - order / 2; // odd: the zero taps lie at even distances from the centre
        const double t = 2.0 * (2 * j) / order - 1;
        const double ideal = std::sin(std::numbers::pi * m / 2) / (std::numbers::pi * m);
        const double tap = ideal * besselI0(beta * std::sqrt(std::max(0.0, 1 - t * t))) / i0Beta;
        taps[static_cast<size_t>(j)] = tap;
        sum += tap;
    }
    HalfbandDesign design;
    design.tapCount = order + 1;
    design.k = k;
    design.taps.reserve(taps.size());
    for (const double tap : taps)
        design.taps.push_back(static_cast<float>(tap * 0.5 / sum));
    return design;
}

} // namespace harlune
