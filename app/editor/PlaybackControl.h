#pragma once

#include "base/FrameRange.h"
#include "core/AudioContent.h"
#include "core/GainEnvelope.h"

#include <cstdint>

namespace harlune {

/// What the editor model asks of the playback engine. Each call takes the engine's own lock as
/// needed and returns at once; all are made on the main thread.
class PlaybackControl {
public:
    virtual ~PlaybackControl() = default;

    /// The content the callback reads and the gain envelopes it applies, swapped in as one, with
    /// the range to play: no callback renders one without the other. While playing, play goes
    /// on without a gap. Made once for every change of either.
    virtual void setAudio(const AudioContent& content, const EnvelopeSet& envelopes, FrameRange range) = 0;
    /// Whether play wraps at the end of its range; works with or without a play in progress.
    virtual void setLooping(bool looping) = 0;
    /// Silence the output and pause the device.
    virtual void pause() = 0;
    /// While playing: continue from `frame` (already clamped to the content) at the next callback.
    virtual void setPosition(int64_t frame) = 0;
    /// Linear output gain (the loudness preview), stored for the next render, playing or not.
    virtual void setGain(float gain) = 0;
};

/// Stands in until the playback engine exists: plays nothing.
class NullPlaybackControl final : public PlaybackControl {
public:
    void setAudio(const AudioContent&, const EnvelopeSet&, FrameRange) override {}
    void setLooping(bool) override {}
    void pause() override {}
    void setPosition(int64_t) override {}
    void setGain(float) override {}
};

} // namespace harlune
