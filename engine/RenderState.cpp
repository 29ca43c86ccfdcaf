#include "engine/RenderState.h"

#include <algorithm>

namespace harlune {

namespace {

void scaleInto(float* destination, const float* source, float gain, int64_t count) noexcept {
#pragma omp simd
    for (int64_t i = 0; i < count; ++i)
        destination[i] = source[i] * gain;
}

void scaleAddInto(float* destination, const float* source, float gain, int64_t count) noexcept {
#pragma omp simd
    for (int64_t i = 0; i < count; ++i)
        destination[i] += source[i] * gain;
}

void multiplyInPlace(float* destination, const float* factors, int64_t count) noexcept {
#pragma omp simd
    for (int64_t i = 0; i < count; ++i)
        destination[i] *= factors[i];
}

// Marks a callback's run in `callbackEpoch`, on every path out.
class EpochScope {
public:
    explicit EpochScope(std::atomic<uint64_t>& epoch) noexcept : epoch_(epoch) { epoch_.fetch_add(1); }
    ~EpochScope() { epoch_.fetch_add(1); }
    EpochScope(const EpochScope&) = delete;
    EpochScope& operator=(const EpochScope&) = delete;

private:
    std::atomic<uint64_t>& epoch_;
};

} // namespace

RenderState::RenderState()
    : scratch_(static_cast<size_t>(maxChannels) * kMaxChunk, 0.0f), envelopeGains_(kMaxChunk, 0.0f),
      envelopeScratch_(kMaxChunk, 0.0f) {
    for (size_t c = 0; c < scratchPointers_.size(); ++c)
        scratchPointers_[c] = scratch_.data() + c * kMaxChunk;
}

void RenderState::render(int frameCount, std::span<float* const> outputs,
                         bool& isSilence) noexcept HARLUNE_NONBLOCKING {
    const EpochScope running(callbackEpoch);
    isSilence = false;
    const auto frames = static_cast<size_t>(std::max(frameCount, 0));
    for (float* output : outputs)
        if (output != nullptr)
            std::fill_n(output, frames, 0.0f);

    if (!programLock.tryLock()) {
        isSilence = true;
        return;
    }
    const PlaybackProgram local = program;
    programLock.unlock();

    if (!local.playing || !local.content || local.range.lower == local.range.upper) {
        isSilence = true;
        return;
    }
    const AudioContent& content = *local.content;
    const FrameRange range = local.range;
    const int channels = std::min(content.channelCount(), maxChannels);
    const int outputCount = static_cast<int>(outputs.size());

    if (effectsLock.tryLock()) {
        if (effects.isActive)
            effects.syncRuntime();
        const PreviewRuntime* const wanted = effects.isActive ? effects.runtime.get() : nullptr;
        // Moving on hands the old runtime back rather than dropping it, which could free it here.
        // `handedBack` is empty unless the main thread has stored nothing since the last move; then
        // the old runtime runs on until it has.
        if (cachedRuntime_.get() != wanted && !effects.handedBack) {
            effects.handedBack = std::move(cachedRuntime_);
            if (wanted != nullptr)
                cachedRuntime_ = effects.runtime;
        }
        effectsLock.unlock();
    }
    PreviewRuntime* const runtime = cachedRuntime_.get();

    int64_t pos = position.load(std::memory_order_relaxed);
    int64_t done = 0;
    float foldGain = local.gain;
    if (outputCount < channels && outputCount > 0)
        foldGain = local.gain / static_cast<float>((channels + outputCount - 1) / outputCount);
    const std::span<float* const> planes(scratchPointers_.data(), static_cast<size_t>(channels));
    const EnvelopeSet* envelope = local.envelopeActive ? local.envelope.get() : nullptr;

    while (done < frameCount) {
        if (pos >= range.upper || pos < range.lower) {
            if (!local.loop) {
                finished.store(true, std::memory_order_relaxed);
                break;
            }
            pos = range.lower;
        }
        const int64_t n = std::min({frameCount - done, range.upper - pos, static_cast<int64_t>(kMaxChunk)});
        const FrameRange chunk{pos, pos + n};
        content.read(chunk, planes);

        if (envelope != nullptr) {
            for (int c = 0; c < channels; ++c) {
                envelope->fillLinearGains(c, chunk, envelopeGains_.data(), envelopeScratch_.data());
                multiplyInPlace(planes[static_cast<size_t>(c)], envelopeGains_.data(), n);
            }
        }
        if (runtime != nullptr)
            runtime->process(ChannelSpan(planes, static_cast<int>(n)));

        if (outputCount < channels) {
            for (int c = 0; outputCount > 0 && c < channels; ++c) {
                float* const output = outputs[static_cast<size_t>(c % outputCount)];
                if (output != nullptr)
                    scaleAddInto(output + done, planes[static_cast<size_t>(c)], foldGain, n);
            }
        } else {
            for (int c = 0; c < channels; ++c) {
                float* const output = outputs[static_cast<size_t>(c)];
                if (output != nullptr)
                    scaleInto(output + done, planes[static_cast<size_t>(c)], local.gain, n);
            }
        }
        pos += n;
        done += n;
    }
    position.store(pos, std::memory_order_relaxed);
}

} // namespace harlune
