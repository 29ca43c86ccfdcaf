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

    /// Store the gain envelopes the callback applies.
    virtual void setEnvelopes(const EnvelopeSet& envelopes) = 0;
    /// While playing: swap in new content and range, touching nothing else, so play goes on
    /// without a gap.
    virtual void replaceContent(const AudioContent& content, FrameRange range) = 0;
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
    void setEnvelopes(const EnvelopeSet&) override {}
    void replaceContent(const AudioContent&, FrameRange) override {}
    void setLooping(bool) override {}
    void pause() override {}
    void setPosition(int64_t) override {}
    void setGain(float) override {}
};

} // namespace harlune
