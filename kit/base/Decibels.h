#pragma once

namespace harlune::Decibels {

/// The lowest level the system reports, in dB.
inline constexpr double floor = -144.0;

/// 10^(dB/20), with no floor: -144 dB gives about 6.3e-8.
double toLinear(double dB);
/// 20·log10(x), and -144 for x not above 0 (NaN included); never below -144.
double fromLinear(double x);
/// 10·log10(x) for a power, and -144 for x not above 0; never below -144.
double fromPower(double x);

} // namespace harlune::Decibels
