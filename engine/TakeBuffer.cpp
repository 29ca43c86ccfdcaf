#include "engine/TakeBuffer.h"

#include "base/Precondition.h"

#include <algorithm>
#include <cmath>

namespace harlune {

TakeBuffer::TakeBuffer(int deviceChannels, std::vector<int> inputChannels, double sampleRate)
    : ring_(deviceChannels, static_cast<int64_t>(std::ceil(sampleRate * ringSeconds))),
      inputChannels_(std::move(inputChannels)), sampleRate_(sampleRate),
      scratch_(static_cast<size_t>(deviceChannels), std::vector<float>(tapBlockFrames)),
      peaks_(inputChannels_.size(), 0.0f), clips_(inputChannels_.size(), false) {
    HARLUNE_PRECONDITION(!inputChannels_.empty(), "a take needs a channel");
    for (int channel : inputChannels_)
        HARLUNE_PRECONDITION(channel >= 0 && channel < deviceChannels, "an input channel the device lacks");
}

void TakeBuffer::capture(int frameCount,
                         std::span<const float* const> channels) noexcept HARLUNE_NONBLOCKING {
    ring_.push(frameCount, channels);
}

int64_t TakeBuffer::drain(bool partial) {
    std::lock_guard lock(drainMutex_);
    int64_t moved = 0;
    for (;;) {
        const int64_t available = ring_.available();
        if (available == 0 || (available < tapBlockFrames && !partial))
            break;
        const int frames = static_cast<int>(std::min<int64_t>(available, tapBlockFrames));
        std::vector<float*> planes;
        planes.reserve(scratch_.size());
        for (auto& plane : scratch_)
            planes.push_back(plane.data());
        ring_.pop(frames, planes);
        ingest(frames);
        moved += frames;
    }
    return moved;
}

void TakeBuffer::ingest(int frames) {
    std::vector<std::span<const float>> take;
    take.reserve(inputChannels_.size());
    for (int channel : inputChannels_)
        take.emplace_back(scratch_[static_cast<size_t>(channel)].data(), static_cast<size_t>(frames));

    {
        std::lock_guard lock(metersMutex_);
        for (size_t c = 0; c < take.size(); ++c) {
            float peak = 0;
            for (float x : take[c])
                peak = std::max(peak, std::fabs(x));
            peaks_[c] = std::max(peaks_[c], peak);
            if (peak >= 0.999f)
                clips_[c] = true;
        }
    }

    std::lock_guard lock(stateMutex_);
    if (!state_.builder)
        return;
    state_.builder->append(take);
    if (state_.file)
        state_.file->write(take);
    captured_.fetch_add(frames, std::memory_order_release);
}

void TakeBuffer::beginCapture(const std::optional<std::filesystem::path>& safetyPath) {
    // What waited in the ring before the start belongs to no take: it feeds the meters only.
    drain(true);
    std::unique_ptr<SafetyFile> file;
    if (safetyPath) {
        try {
            file = std::make_unique<SafetyFile>(*safetyPath, sampleRate_, outputChannels());
        } catch (const std::exception&) {
            // An unwritable recordings folder costs the safety copy, never the take.
        }
    }
    std::lock_guard lock(stateMutex_);
    state_.builder.emplace(outputChannels(), sampleRate_);
    state_.file = std::move(file);
    captured_.store(0, std::memory_order_release);
}

std::optional<AudioContent> TakeBuffer::endCapture() {
    drain(true);
    std::lock_guard lock(stateMutex_);
    if (!state_.builder)
        return std::nullopt;
    AudioContent content = state_.builder->build();
    state_.builder.reset();
    state_.file.reset();
    return content;
}

std::optional<AudioContent> TakeBuffer::snapshot() const {
    std::lock_guard lock(stateMutex_);
    if (!state_.builder)
        return std::nullopt;
    return state_.builder->snapshot();
}

TakeBuffer::MeterReading TakeBuffer::readMeters() {
    std::lock_guard lock(metersMutex_);
    MeterReading reading{peaks_, clips_};
    std::fill(peaks_.begin(), peaks_.end(), 0.0f);
    return reading;
}

void TakeBuffer::resetClips() {
    std::lock_guard lock(metersMutex_);
    std::fill(clips_.begin(), clips_.end(), false);
}

bool TakeBuffer::hasSafetyFile() const {
    std::lock_guard lock(stateMutex_);
    return state_.file != nullptr;
}

bool TakeBuffer::safetyFileFailed() const {
    std::lock_guard lock(stateMutex_);
    return state_.file && state_.file->hasFailed();
}

} // namespace harlune
