#pragma once

#include <cstdint>

#include "core/AudioContent.h"

namespace harlune {

/// The frame nearest `frame` (within `radius`) where the sum of all channels crosses zero or is
/// zero; at equal distance the earlier one wins. `frame` itself when none qualifies.
int64_t nearestZeroCrossing(const AudioContent& content, int64_t frame, int64_t radius);

} // namespace harlune
