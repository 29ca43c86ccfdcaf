#pragma once

#include "base/Clamped.h"

#include <cmath>

namespace harlune {

/// The delay time in milliseconds of `beats` beats of a tempo grid at `bpm` (a quarter note is
/// 1 beat, a dotted eighth 0.75), for `DelaySettings.timeMs` synced to the grid. The tempo is
/// first held to the grid's range of 20...400 beats per minute, so that the repeats land on the
/// grid's own lines; a non-finite tempo counts as 120, a non-finite or negative count as 0.
inline double syncedDelayTimeMs(double bpm, double beats) {
    const double tempo = std::isfinite(bpm) ? clamped(bpm, 20.0, 400.0) : 120.0;
    const double count = std::isfinite(beats) ? std::max(beats, 0.0) : 0.0;
    return 60000.0 / tempo * count;
}

} // namespace harlune
