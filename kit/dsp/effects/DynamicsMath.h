#pragma once

#include <cstdint>

namespace harlune::dynamicsMath {

/// The whole-block steps of the dynamics processors' side chains, in float, written so that the
/// compiler vectorises them under IEEE rules. None allocates; all are safe on the audio thread.

/// `out[i] = |in[i]|`.
void magnitude(float* out, const float* in, int64_t count);
/// `out[i] = max(out[i], |in[i]|)`: the loudest channel so far.
void maxMagnitude(float* out, const float* in, int64_t count);
/// `x[i] = dbPerOctave * log2(clamp(x[i], floor, 1e30))`: a level in dB from a magnitude
/// (dbPerOctave 6.0206) or a mean square (3.0103). NaN reads as `floor`, which must be a normal
/// positive float. Absolute error of the log2 under 2e-7 before rounding to float.
void levelDB(float* x, int64_t count, float floor, float dbPerOctave);
/// The compressor's static curve applied to levels in dB: `x[i]` becomes the curve's output
/// minus its input (0 or less). `slope` is 1 / ratio, `kneeDB` the full knee width (0 for a
/// hard corner). The knee's parabola is written as (slope - 1) * u^2 / 2K with u the level's
/// depth into the knee clamped to 0...K, plus the straight part beyond it, so no branch is taken.
void curveReductionDB(float* x, int64_t count, float thresholdDB, float slope, float kneeDB);
/// `x[i] = 2^x[i]`, relative error under 2e-6 for arguments in -125...127.
void exp2InPlace(float* x, int64_t count);
/// `x[i] = x[i] * mix + (1 - mix)`: a gain made partly dry.
void wetGain(float* x, int64_t count, float mix);
/// `x[i] = 1 + (x[i] - 1) * mix[i]`: the same with a mix that moves frame by frame.
void wetGainCurve(float* x, const float* mix, int64_t count);

} // namespace harlune::dynamicsMath
