#pragma once

#include <cstdint>

namespace harlune::vec {

/// Element-wise whole-buffer maths in float, written so that the compiler vectorises every loop
/// under IEEE rules (no fast-math). None allocates; all are safe on the audio thread.

/// `x[i] = e^x[i]`, relative error under 1e-6 for arguments in -87...88 (outside, the result is
/// that of the nearest end). NaN stays NaN.
void expInPlace(float* x, int64_t count);
/// `x[i] *= factor`.
void scale(float* x, int64_t count, float factor);
/// `x[i] *= y[i]`.
void multiply(float* x, const float* y, int64_t count);
/// `x[i] = start + i * step`, the index converted to float.
void ramp(float* x, int64_t count, float start, float step);
void fill(float* x, int64_t count, float value);
/// `x[i] += value`.
void addScalar(float* x, int64_t count, float value);
/// `x[i] += y[i]`.
void add(float* x, const float* y, int64_t count);
/// The order of `x` reversed in place.
void reverse(float* x, int64_t count);
/// The sum in float, in vector lanes (so not in strict left-to-right order).
float sum(const float* x, int64_t count);

} // namespace harlune::vec
