#pragma once

namespace harlune {

/// How loudness is adjusted: towards a target or by a manual gain.
enum class LoudnessAdjustMode { target, manual };

} // namespace harlune
