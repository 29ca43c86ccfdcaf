#pragma once

#include "base/ChannelSet.h"
#include "base/FrameRange.h"
#include "core/AudioContent.h"
#include "core/GainEnvelope.h"
#include "editor/Marker.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace harlune {

/// The whole of one undo step. Copying is cheap: the content shares its blocks.
struct EditState {
    AudioContent content;
    std::optional<FrameRange> selection;
    ChannelSet activeChannels;
    int64_t cursor = 0;
    std::vector<Marker> markers;
    EnvelopeSet envelope;
};

} // namespace harlune
