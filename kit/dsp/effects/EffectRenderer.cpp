#include "dsp/effects/EffectRenderer.h"

#include "base/HarluneError.h"
#include "dsp/Buffers.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace harlune::EffectRenderer {

int64_t render(const AudioSource& source, FrameRange range,
               std::span<const std::shared_ptr<EffectProcessor>> chain, bool includeTail,
               double maxTailSeconds, const Progress& progress, Emit emit) {
    const int channels = source.channelCount();
    const double rate = source.sampleRate();
    for (const auto& processor : chain)
        processor->prepare(rate, channels, blockSize); // which also resets

    int64_t latency = 0;
    int64_t tail = 0;
    for (const auto& processor : chain) {
        latency += std::max(0, processor->latencyFrames());
        tail += std::max(0, processor->tailFrames());
    }
    if (includeTail) {
        const double limit = std::trunc(maxTailSeconds * rate);
        tail = limit > 0 ? std::min(tail, static_cast<int64_t>(std::min(limit, 9.0e18))) : 0;
    } else {
        tail = 0;
    }

    const int64_t length = std::max<int64_t>(range.length(), 0);
    const int64_t total = length + tail + latency;
    const int64_t toEmit = length + tail;

    ChannelBuffers buffers(channels, blockSize);
    const ChannelPointers pointers = buffers.pointers();
    std::vector<std::span<const float>> views(static_cast<size_t>(channels));
    int64_t emitted = 0;

    for (int64_t p = 0; p < total;) {
        const int64_t n = std::min<int64_t>(blockSize, total - p);
        const int64_t fromSource = std::clamp<int64_t>(length - p, 0, n);
        if (fromSource > 0)
            source.read({range.lower + p, range.lower + p + fromSource}, pointers);
        for (float* channel : pointers)
            std::memset(channel + fromSource, 0, static_cast<size_t>(n - fromSource) * sizeof(float));

        for (const auto& processor : chain)
            processor->process(ChannelSpan(pointers, static_cast<int>(n)));

        const int64_t skip = std::clamp<int64_t>(latency - p, 0, n);
        const int64_t count = std::min(n - skip, toEmit - emitted);
        if (count > 0) {
            for (size_t c = 0; c < views.size(); ++c)
                views[c] = std::span<const float>(pointers[c] + skip, static_cast<size_t>(count));
            emit(ChunkViews(views));
            emitted += count;
        }
        p += n;
        if (progress && !progress(static_cast<double>(p) / static_cast<double>(total)))
            throw HarluneError::cancelled();
    }
    return emitted;
}

} // namespace harlune::EffectRenderer
