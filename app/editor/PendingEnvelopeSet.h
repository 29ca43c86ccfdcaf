#pragma once

// TEMPORARY: stands in for the kit's gain envelopes until core/GainEnvelope.h lands; then this
// header goes and the model includes the real one. It holds nothing, so every set is flat.

namespace harlune {

struct EnvelopeSet {
    /// The same set with one channel envelope and trim per channel of `channelCount`.
    EnvelopeSet fitted(int /*channelCount*/) const { return *this; }

    friend bool operator==(const EnvelopeSet&, const EnvelopeSet&) = default;
};

} // namespace harlune
