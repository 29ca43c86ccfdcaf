#include "base/Decibels.h"

#include <cmath>

namespace harlune::Decibels {

double toLinear(double dB) {
    return std::pow(10.0, dB / 20.0);
}

double fromLinear(double x) {
    if (!(x > 0.0))
        return floor;
    const double dB = 20.0 * std::log10(x);
    return dB < floor ? floor : dB;
}

double fromPower(double x) {
    if (!(x > 0.0))
        return floor;
    const double dB = 10.0 * std::log10(x);
    return dB < floor ? floor : dB;
}

} // namespace harlune::Decibels
