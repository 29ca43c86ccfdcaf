#pragma once

#include "base/FrameRange.h"
#include "core/AudioContent.h"
#include "core/GainEnvelope.h"

#include <memory>
#include <optional>

namespace harlune {

/// What the render callback is to play, as one small value. The callback copies it whole at the
/// start of each callback; the copy retains two shared references (content, envelope set) and
/// never copies audio or envelope points.
struct PlaybackProgram {
    std::optional<AudioContent> content;
    /// The stretch played; a loop runs over exactly this range.
    FrameRange range;
    bool loop = false;
    /// Linear output gain.
    float gain = 1.0f;
    /// False makes the callback output silence.
    bool playing = false;
    /// Gain envelopes and channel trims; null is the set without points.
    std::shared_ptr<const EnvelopeSet> envelope;
    /// `!envelope->isFlat()`, cached so that the callback skips all gain work for a flat set.
    bool envelopeActive = false;
};

} // namespace harlune
