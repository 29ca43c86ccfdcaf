#pragma once

#include "base/AudioSource.h"
#include "base/FunctionRef.h"
#include "dsp/SignalStats.h"

#include <optional>

namespace harlune {

/// The numbers of the Info panel.
namespace SignalAnalysis {

/// Peak, RMS and mean of each channel over `range` (clamped to the source), walked in chunks of
/// 65536 frames. Sums are taken in float over blocks of 4096 samples and added up in double, so
/// an hour of audio keeps about seven significant digits. An empty range gives zeros.
/// `progress` gets fractions from 0 to 1 and answers whether to go on; false throws
/// `HarluneError::cancelled()`.
SignalStats stats(const AudioSource& source, FrameRange range,
                  std::optional<FunctionRef<bool(double)>> progress = std::nullopt);

} // namespace SignalAnalysis

} // namespace harlune
