#pragma once

#include "core/AudioContent.h"
#include "core/GainEnvelope.h"

#include <cstdint>

namespace harlune {

/// The frame nearest `frame` (within `radius`) where the sum of all channels crosses zero or is
/// zero; at equal distance the earlier one wins. `frame` itself when none qualifies.
int64_t nearestZeroCrossing(const AudioContent& content, int64_t frame, int64_t radius);

/// The content with the curve rendered into new blocks; the same content when the curve is flat.
AudioContent applyingEnvelope(const AudioContent& content, const GainEnvelope& envelope);
/// The content with the set rendered into new blocks; the same content when the set is flat.
AudioContent applyingEnvelopes(const AudioContent& content, const EnvelopeSet& envelopes);

} // namespace harlune
