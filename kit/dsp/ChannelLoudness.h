#pragma once

#include "base/AudioSource.h"
#include "base/FunctionRef.h"
#include "dsp/LoudnessResult.h"

#include <optional>
#include <vector>

namespace harlune {

/// One pass over a source: the whole with the default weights, and `measureChannels`' figures.
struct LoudnessWithChannels {
    /// None when the measurement fails or `progress` cancels it.
    std::optional<LoudnessResult> whole;
    std::vector<double> channels;
};
LoudnessWithChannels measureWithChannels(const AudioSource& source,
                                         std::optional<FunctionRef<bool(double)>> progress = std::nullopt);

/// Integrated loudness of each channel alone (weight 1 for it, 0 for the others), LUFS, from one
/// pass over the source; negative infinity for every channel when the measurement fails or
/// `progress` cancels it. Empty for fewer than 2 or more than 8 channels, where a per-channel
/// figure says nothing the whole does not.
std::vector<double> measureChannels(const AudioSource& source,
                                    std::optional<FunctionRef<bool(double)>> progress = std::nullopt);

/// Trims in dB that bring each channel to the mean of `loudness` (LUFS per channel): the
/// mean less each figure. Empty unless there are at least two figures and all are finite.
std::vector<double> balancingTrims(const std::vector<double>& loudness);

} // namespace harlune
