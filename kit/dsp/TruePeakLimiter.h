#pragma once

#include "base/AudioSource.h"
#include "base/FunctionRef.h"

#include <optional>

namespace harlune {

/// The offline true-peak limiter: a look-ahead limiter that watches the interpolated waveform
/// (the same filters as the true-peak meter), with one gain for all channels so that the image
/// holds. It keeps no state between renders.
///
/// Each block is read with a margin on both sides. A peak curve of samples and interpolated
/// points is held over +-W frames, turned into target gains (ceiling / peak), and a box average
/// of 2L + 1 of those targets, centred on the output frame, gives a gain that falls linearly into
/// every peak and is fully down before the filters reach it; a one-pole release lets it back up.
namespace TruePeakLimiter {

/// Renders `range` (clamped to the source; frames outside it read as silence) after a gain of
/// `preGainDB`, under a true peak of `ceilingDBTP`, with `lookaheadMs` of attack and half-window
/// and a release time constant of `releaseMs` (0: instant). `emit` gets every frame of the range
/// in order, in blocks of at most 65536, one view per channel, valid during the call. Non-finite
/// input samples come out as silence. `progress` gets fractions and answers whether to go on; false
/// throws `HarluneError::cancelled()`. An error from `emit` passes through.
void render(const AudioSource& source, FrameRange range, double preGainDB, double ceilingDBTP,
            double lookaheadMs, double releaseMs, std::optional<FunctionRef<bool(double)>> progress,
            FunctionRef<void(ChunkViews)> emit);

} // namespace TruePeakLimiter

} // namespace harlune
