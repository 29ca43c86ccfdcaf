#pragma once

#include <vector>

namespace harlune {

/// A linear-phase half-band low-pass FIR of 4k + 3 taps, cutting at a quarter of its rate:
/// every second tap is zero but the centre (0.5), so only the 2k + 2 others are kept, in time
/// order. Kaiser-windowed ideal response; the kept taps sum to 0.5, so the gain at DC is 1.
struct HalfbandDesign {
    int tapCount = 0;
    int k = 0;
    std::vector<float> taps;

    /// `attenuationDB` sets the Kaiser window's beta (stopband depth); `k` the length.
    static HalfbandDesign make(int k, double attenuationDB);
};

} // namespace harlune
