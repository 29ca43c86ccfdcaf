#pragma once

#include "base/FrameRange.h"
#include "core/AudioContent.h"
#include "core/GainEnvelope.h"

#include <cstdint>
#include <memory>

namespace harlune {

class RenderState;

/// What the editor model asks of the playback engine. Each call takes the engine's own lock as
/// needed and returns at once; all are made on the main thread.
class PlaybackControl {
public:
    virtual ~PlaybackControl() = default;

    /// The content the callback reads and the gain envelopes it applies, swapped in as one, with
    /// the range to play: no callback renders one without the other. While playing, play goes
    /// on without a gap. Made once for every change of either.
    virtual void setAudio(const AudioContent& content, const EnvelopeSet& envelopes, FrameRange range) = 0;
    /// The envelopes alone, as each play hands them over again.
    virtual void setEnvelopes(const EnvelopeSet& envelopes) = 0;
    /// Whether play wraps at the end of its range; works with or without a play in progress.
    virtual void setLooping(bool looping) = 0;
    /// Silence the output and pause the device.
    virtual void pause() = 0;
    /// While playing: continue from `frame` (already clamped to the content) at the next callback.
    virtual void setPosition(int64_t frame) = 0;
    /// Linear output gain (the loudness preview), stored for the next render, playing or not.
    virtual void setGain(float gain) = 0;

    /// Makes the output match the content's rate and channels. Throws when the device cannot
    /// open or play that format.
    virtual void ensureGraph(const AudioContent& content) = 0;
    /// A new play of `range`, starting at `from` (inside the range). Throws when the device
    /// cannot start; then nothing plays.
    virtual void start(const AudioContent& content, FrameRange range, int64_t from, bool loop,
                       float gain) = 0;
    /// Where the effects rack publishes its chain; null for a player that renders nothing.
    virtual std::shared_ptr<RenderState> renderState() const = 0;
    /// The frame the listener hears now.
    virtual int64_t audiblePosition() const = 0;
    /// The next frame the callback renders; advisory on the main thread.
    virtual int64_t position() const = 0;
    /// Whether a play without loop has run out of its range.
    virtual bool finished() const = 0;
};

/// Plays nothing, for models without sound (tests, tools): the position stands where a play or
/// a seek put it, and a play never finishes.
class NullPlaybackControl final : public PlaybackControl {
public:
    void setAudio(const AudioContent&, const EnvelopeSet&, FrameRange) override {}
    void setEnvelopes(const EnvelopeSet&) override {}
    void setLooping(bool) override {}
    void pause() override {}
    void setPosition(int64_t frame) override { position_ = frame; }
    void setGain(float) override {}
    void ensureGraph(const AudioContent&) override {}
    void start(const AudioContent&, FrameRange, int64_t from, bool, float) override { position_ = from; }
    std::shared_ptr<RenderState> renderState() const override { return nullptr; }
    int64_t audiblePosition() const override { return position_; }
    int64_t position() const override { return position_; }
    bool finished() const override { return false; }

private:
    int64_t position_ = 0;
};

} // namespace harlune
