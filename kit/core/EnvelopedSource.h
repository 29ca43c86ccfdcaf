#pragma once

#include "core/AudioContent.h"
#include "core/GainEnvelope.h"

namespace harlune {

/// A content read through its gain envelopes: the source behind playback snapshots,
/// measurement and saving. Channel count, rate and length are the content's.
class EnvelopedSource final : public AudioSource {
public:
    AudioContent content;
    EnvelopeSet envelopes;

    EnvelopedSource(AudioContent audio, EnvelopeSet set)
        : content(std::move(audio)), envelopes(std::move(set)) {}
    /// One curve as the master, with no channel curves or trims.
    EnvelopedSource(AudioContent audio, GainEnvelope master)
        : content(std::move(audio)), envelopes(std::move(master)) {}

    int channelCount() const override { return content.channelCount(); }
    double sampleRate() const override { return content.sampleRate(); }
    int64_t frameCount() const override { return content.frameCount(); }

    /// Costs a plain content read when the envelopes are flat. Otherwise it allocates a scratch of
    /// the range's length: on the audio thread use `EnvelopeSet::fillLinearGains` with own buffers.
    void read(FrameRange range, ChannelPointers destination) const override;
};

} // namespace harlune
