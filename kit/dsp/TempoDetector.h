#pragma once

#include "base/AudioSource.h"
#include "base/FrameRange.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace harlune {

/// Tempo, beat phase and bar start of music.
struct TempoEstimate {
    double bpm = 0;
    int64_t downbeatFrame = 0;  ///< the bar line nearest the file's start
    int64_t firstBeatFrame = 0; ///< the beat nearest the file's start
    double confidence = 0;      ///< 0...1; 0 where the onsets show no period at all (silence)
};

/// Finds the tempo of a stretch of music: an onset curve (spectral flux), an autocorrelation
/// weighted towards 120 BPM that picks a coarse period, and a comb search that refines period and
/// phase; the bar start is the beat position of the bar with the most energy. Stateless; reads
/// at most `maxSeconds` from the middle of the range. Runs on a background job.
namespace TempoDetector {

/// Hop of the onset curve, in frames; its positions count in hops.
inline constexpr int hopSize = 512;
/// The tempi offered to the user as plausible, beats per minute, both ends included.
struct BPMRange {
    double lowerBound;
    double upperBound;
};
inline constexpr BPMRange bpmRange{60, 200};

/// The estimate for `range` (absent: the whole source), or none when there is too little audio.
std::optional<TempoEstimate> detect(const AudioSource& source, std::optional<FrameRange> range,
                                    int beatsPerBar, double maxSeconds);

/// One value per hop, 0...1: the positive spectral flux of the channels' sum, less its local mean
/// over half a second. Empty for 2048 frames or fewer.
std::vector<float> onsetEnvelope(const AudioSource& source, FrameRange range);

} // namespace TempoDetector

} // namespace harlune
