#pragma once

namespace harlune {

/// One second-order section, normalised so that a0 = 1:
/// y = b0 x + b1 x[-1] + b2 x[-2] - a1 y[-1] - a2 y[-2].
struct BiquadCoefficients {
    double b0 = 1;
    double b1 = 0;
    double b2 = 0;
    double a1 = 0;
    double a2 = 0;

    friend bool operator==(const BiquadCoefficients&, const BiquadCoefficients&) = default;
};

} // namespace harlune
