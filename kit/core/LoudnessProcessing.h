#pragma once

#include "base/FrameRange.h"
#include "base/FunctionRef.h"
#include "core/AudioContent.h"
#include "dsp/LoudnessNormalization.h"

#include <optional>

namespace harlune {

/// Why the loudness loop ended.
enum class LoudnessAdjustStop {
    /// A plain gain was enough (no limiting asked or needed): nothing was measured.
    plainGain,
    /// A manual gain: one limiter pass, nothing measured.
    singlePass,
    /// The measured loudness came within the tolerance of the target.
    reachedTarget,
    /// The rendered range measured as silence.
    notMeasurable,
    /// The next gain would pass 12 dB over the plan's: the limiter can't get there.
    gainLimit,
    /// Out of passes.
    maxPasses,
};

/// The new content and how the loop went.
struct LoudnessAdjustment {
    AudioContent content;
    LoudnessAdjustStop stop = LoudnessAdjustStop::plainGain;
    /// Limiter renders made.
    int passes = 0;
    /// dB of pre-gain in the kept render.
    double gainDB = 0;
    /// LUFS of the kept render's range, when it was measured.
    std::optional<double> measuredLUFS;
};

/// Takes `range` (the whole content when absent; clamped) to the plan's gain. With `limit` and a
/// plan that needs limiting, the true-peak limiter renders the range under `ceilingDBTP`; since
/// limiting lowers the loudness, a `targetLUFS` makes it measure and raise the gain again (by a
/// secant slope of 1 to 4) until within `tolerance` LU, `maxPasses` renders, or 12 dB over the
/// plan's gain. `progress` gets fractions and answers whether to go on; false throws
/// `HarluneError::cancelled()`.
LoudnessAdjustment adjustLoudness(const AudioContent& content, std::optional<FrameRange> range,
                                  const LoudnessNormalization::Plan& plan, std::optional<double> targetLUFS,
                                  double ceilingDBTP, bool limit, double tolerance, int maxPasses,
                                  std::optional<FunctionRef<bool(double)>> progress = std::nullopt);

/// `adjustLoudness`, giving only the content.
AudioContent adjustingLoudness(const AudioContent& content, std::optional<FrameRange> range,
                               const LoudnessNormalization::Plan& plan, std::optional<double> targetLUFS,
                               double ceilingDBTP, bool limit, double tolerance, int maxPasses,
                               std::optional<FunctionRef<bool(double)>> progress = std::nullopt);

} // namespace harlune
