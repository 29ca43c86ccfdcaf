#pragma once

#include "base/FrameRange.h"
#include "core/AudioContent.h"
#include "timepitch/TimePitch.h"

namespace harlune {

/// The content with `range` (clamped) played `rate` times as fast and shifted by `pitchCents`,
/// all channels alike; the content's length changes by the rate. An empty range gives the
/// content unchanged. Throws what the render throws (bad rate or pitch, `cancelled` when
/// `progress` answers false), leaving `content` as it was.
AudioContent timePitched(const AudioContent& content, FrameRange range, double rate, double pitchCents,
                         TimePitch::Progress progress, TimePitch::Engine engine = TimePitch::Engine::finer);

} // namespace harlune
