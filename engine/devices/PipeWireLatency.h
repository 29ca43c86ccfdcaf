#pragma once

#include <cstdint>

namespace harlune {

/// Seconds from the stream's next frame to the speaker, from one PipeWire time report. `delay`
/// counts in the graph's rate (`rateNumerator / rateDenominator` seconds per tick, 1/48000 even
/// for a 44.1 kHz stream); `queuedFrames` (what the stream still holds) and `bufferedFrames`
/// (what its resampler holds) count in the stream's own rate.
inline double pipeWireLatencySeconds(int64_t delay, uint32_t rateNumerator, uint32_t rateDenominator,
                                     uint64_t queuedFrames, uint64_t bufferedFrames, double streamRate) {
    double seconds = 0;
    if (rateDenominator != 0 && delay > 0)
        seconds += static_cast<double>(delay) * rateNumerator / rateDenominator;
    if (streamRate > 0)
        seconds += static_cast<double>(queuedFrames + bufferedFrames) / streamRate;
    return seconds;
}

} // namespace harlune
