#include "core/EnvelopedSource.h"

#include "dsp/VectorMath.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace harlune {

void EnvelopedSource::read(FrameRange range, ChannelPointers destination) const {
    content.read(range, destination);
    if (range.isEmpty() || envelopes.isFlat())
        return;
    const int64_t n = range.length();
    const auto length = static_cast<size_t>(n);
    const size_t channels = std::min(destination.size(), static_cast<size_t>(content.channelCount()));
    // The master's gains are shared by every channel, so they are computed once; a channel with a
    // curve or trim of its own combines them in a copy, in the order of
    // `EnvelopeSet::fillLinearGains`, so that playback and saving give the same samples.
    std::vector<float> masterGains(length);
    std::vector<float> gains;
    std::vector<float> scratch;
    envelopes.master.fillLinearGains(range, masterGains.data());
    for (size_t c = 0; c < channels; ++c) {
        const int channel = static_cast<int>(c);
        const auto& own = envelopes[channel];
        const double trim = envelopes.trim(channel);
        const bool ownApplies = !own.isFlat();
        const bool trimApplies = std::abs(trim) > 1e-6;
        const float* channelGains = masterGains.data();
        if (ownApplies || trimApplies) {
            gains.resize(length);
            std::memcpy(gains.data(), masterGains.data(), length * sizeof(float));
            if (ownApplies) {
                scratch.resize(length);
                own.fillLinearGains(range, scratch.data());
                vec::multiply(gains.data(), scratch.data(), n);
            }
            if (trimApplies)
                vec::scale(gains.data(), n, static_cast<float>(std::pow(10.0, trim / 20.0)));
            channelGains = gains.data();
        }
        vec::multiply(destination[c], channelGains, n);
    }
}

} // namespace harlune
