#pragma once

#include <cstdint>
#include <vector>

namespace harlune {

/// Per-channel figures of a stretch of audio, one entry per channel in each list.
struct SignalStats {
    /// Largest magnitude, linear.
    std::vector<float> peak;
    /// Root mean square, linear.
    std::vector<double> rms;
    /// The mean, linear (1 is full scale).
    std::vector<double> dcOffset;
    /// Source frame of the first sample with the largest magnitude (0 when all are 0).
    std::vector<int64_t> peakFrame;

    int channelCount() const { return static_cast<int>(peak.size()); }

    friend bool operator==(const SignalStats&, const SignalStats&) = default;
};

} // namespace harlune
