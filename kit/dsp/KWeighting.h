#pragma once

#include "dsp/BiquadCoefficients.h"
#include "dsp/Buffers.h"

#include <array>
#include <span>

namespace harlune {

/// The K-weighting of ITU-R BS.1770: a high-frequency shelf followed by a high-pass, designed
/// from the analogue prototype at any sample rate (bilinear transform with pre-warping).
namespace KWeighting {

BiquadCoefficients shelf(double sampleRate);
BiquadCoefficients highPass(double sampleRate);

} // namespace KWeighting

/// One channel's K-weighting: both sections in series, in double precision, with the state kept
/// between calls. Non-finite samples enter as silence, so one bad sample cannot ring on through
/// the recursion for the rest of a stream.
class KWeightingFilter {
public:
    explicit KWeightingFilter(double sampleRate);

    /// Filters `samples`; the result is valid until the next call. Grows its buffers when a call
    /// is longer than any before (65536 samples need no growth).
    std::span<const double> process(std::span<const float> samples);
    /// Clears the state, as at the start.
    void reset() { delay = {}; }

    /// The shelf, then the high-pass.
    std::array<BiquadCoefficients, 2> setup;
    /// x[-1], x[-2], shelf output y1[-1], y1[-2], high-pass output y2[-1], y2[-2].
    std::array<double, 6> delay{};

private:
    DoubleScratch output_;
};

} // namespace harlune
