#pragma once

#include "base/ChannelSet.h"
#include "base/FrameRange.h"
#include "base/Uuid.h"
#include "core/GainEnvelope.h"
#include "editor/Marker.h"

#include <cstdint>
#include <utility>
#include <variant>
#include <vector>

namespace harlune {

/// What a gesture on the timeline is doing, from the press to the release. Each case keeps what
/// the release needs to register its one undo step (the value before the gesture). Points are
/// view coordinates.
namespace drag {

/// Nothing is going on; moves do nothing.
struct None {};
/// The ruler is being dragged: the cursor follows, unsnapped.
struct Scrub {};
/// Sweeping a selection from a fixed `anchor` frame.
struct Select {
    int64_t anchor = 0;
    ChannelSet channels;
};
struct MarkerMove {
    Uuid id;
    std::vector<Marker> original;
};
struct GainPoint {
    Uuid id;
    GainEnvelope original;
};
/// Raising or lowering the points of a stretch of the envelope.
struct GainSection {
    std::vector<std::pair<Uuid, double>> startGains;
    double startY = 0;
    FrameRange span;
    GainEnvelope original; ///< before the press, for the undo step
    GainEnvelope prepared; ///< with the section's edge points, where each move starts from
};
/// Dragging the loudness lane's top edge.
struct LaneResize {
    double startY = 0;
    double startHeight = 0;
};
/// Raising or lowering whole bars; takes effect from the first move.
struct GainBars {
    int64_t anchorBar = 0;
    double startY = 0;
    GainEnvelope original;
};

} // namespace drag

using TimelineDrag = std::variant<drag::None, drag::Scrub, drag::Select, drag::MarkerMove, drag::GainPoint,
                                  drag::GainSection, drag::LaneResize, drag::GainBars>;

} // namespace harlune
