#pragma once

#include "dsp/effects/DistortionSettings.h"

namespace harlune::SaturationCurves {

/// tanh to within a few float ulp (relative, also near 0), without calls or branches, so
/// that a block of it vectorises: the waveshaper runs it at four times the sample rate.
float tanh(float x) noexcept;

/// The curve of `mode` over `count` samples in place: soft tanh(x); tube
/// 1.0927327 tanh(x + 0.3) - 0.31832683 (even harmonics, and 0 stays 0); hard clip to ±1.
/// The bit crusher has no curve and leaves them alone.
void shape(SaturationMode mode, float* samples, int count) noexcept;

} // namespace harlune::SaturationCurves
