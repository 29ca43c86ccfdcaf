#include "core/Processing.h"

#include "core/AudioContentBuilder.h"
#include "core/EnvelopedSource.h"

#include <algorithm>
#include <vector>

namespace harlune {

int64_t nearestZeroCrossing(const AudioContent& content, int64_t frame, int64_t radius) {
    const int64_t frames = content.frameCount();
    if (frames <= 1)
        return frame;
    const int64_t lo = std::max<int64_t>(frame - radius, 0);
    const int64_t hi = std::min(frame + radius + 1, frames);
    if (hi - lo <= 1)
        return frame;

    const auto window = content.readChannels({lo, hi});
    std::vector<float> sum(window.front().size(), 0.0f);
    for (const auto& channel : window)
        for (size_t i = 0; i < sum.size(); ++i)
            sum[i] += channel[i];

    const auto qualifies = [&](int64_t index) {
        if (index <= lo || index >= hi)
            return false; // outside, or the window's first frame, which has no predecessor
        const float here = sum[static_cast<size_t>(index - lo)];
        const float before = sum[static_cast<size_t>(index - lo - 1)];
        return here == 0.0f || (here < 0.0f) != (before < 0.0f);
    };
    const int64_t reach = std::max(frame - lo, hi - frame);
    for (int64_t k = 0; k <= reach; ++k) {
        if (qualifies(frame - k))
            return frame - k;
        if (k > 0 && qualifies(frame + k))
            return frame + k;
    }
    return frame;
}

AudioContent applyingEnvelopes(const AudioContent& content, const EnvelopeSet& envelopes) {
    if (envelopes.isFlat())
        return content;
    const EnvelopedSource source(content, envelopes);
    AudioContentBuilder builder(content.channelCount(), content.sampleRate());
    source.forEachChunk(std::nullopt, AudioBlock::preferredFrameCount,
                        [&](ChunkViews views, int64_t) { builder.append(views); });
    return builder.build();
}

AudioContent applyingEnvelope(const AudioContent& content, const GainEnvelope& envelope) {
    return applyingEnvelopes(content, EnvelopeSet(envelope));
}

} // namespace harlune
