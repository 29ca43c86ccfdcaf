#pragma once

// TEMPORARY: stands in for the gain envelope set of core/GainEnvelope.h until it reaches main.
// Always flat, so that the envelope step of the callback is never taken.

#include "base/FrameRange.h"

#include <cstdint>

namespace harlune {

struct EnvelopeSet {
    bool isFlat() const { return true; }
    void fillLinearGains(int, FrameRange range, float* into, float*) const noexcept {
        for (int64_t i = 0; i < range.length(); ++i)
            into[i] = 1.0f;
    }
};

} // namespace harlune
