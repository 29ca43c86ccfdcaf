#pragma once

#include "base/AudioSource.h"
#include "base/FunctionRef.h"
#include "dsp/LoudnessResult.h"

#include <optional>
#include <span>
#include <vector>

namespace harlune {

/// Offline loudness measurement of a source, and the gating rules shared with the live meter.
namespace LoudnessAnalyzer {

/// The curves hold no value below this, LUFS.
inline constexpr double silenceFloorLUFS = -200;
/// The absolute gate of -70 LUFS as a mean-square energy.
inline constexpr double absoluteGateEnergy = 1.1724653045822981e-07;

/// Measures `range` (all of the source when absent, clamped to it) in one pass, in chunks of
/// 65536 frames. `progress` gets fractions from 0 to 1 and answers whether to go on; false
/// throws `HarluneError::cancelled()`.
LoudnessResult analyze(const AudioSource& source, std::optional<FrameRange> range = std::nullopt,
                       const std::optional<std::vector<double>>& channelWeights = std::nullopt,
                       std::optional<FunctionRef<bool(double)>> progress = std::nullopt);

/// The whole of a source measured with the default weights, and each channel's own loudness.
struct ResultWithChannels {
    LoudnessResult whole;
    /// Integrated loudness of each channel alone, LUFS.
    std::vector<double> channelLUFS;
};
/// `analyze` of all of `source` with the default weights, and from the same pass the integrated
/// loudness of each channel alone: exactly what `analyze` with weight 1 for that channel and 0 for
/// the others gives, for the cost of filtering the channels a default weight of 0 leaves out.
ResultWithChannels analyzeWithChannels(const AudioSource& source,
                                       std::optional<FunctionRef<bool(double)>> progress = std::nullopt);

/// LUFS of exactly `range` as one window, with up to 200 ms ahead of it to settle the filters;
/// negative infinity for an empty range or silence.
double windowLoudness(const AudioSource& source, FrameRange range,
                      const std::optional<std::vector<double>>& channelWeights = std::nullopt);

/// The weights of BS.1770 by channel count (L, R, C, LFE, Ls, Rs, ... order).
std::vector<double> defaultChannelWeights(int channelCount);
/// `weights` cut or filled with 1 to `channelCount`; the defaults when absent.
std::vector<double> resolvedWeights(const std::optional<std::vector<double>>& weights, int channelCount);

/// Integrated loudness of window energies: the -70 LUFS absolute gate, then a gate `relativeGate`
/// LU (negative) under the loudness of what passed it.
double gatedLoudness(std::span<const double> energies, double relativeGate);
/// Loudness range of short-term energies (EBU Tech 3342): 10th to 95th percentile of the
/// windows above the absolute gate and 20 LU under their loudness.
double loudnessRange(std::span<const double> energies);

} // namespace LoudnessAnalyzer

} // namespace harlune
