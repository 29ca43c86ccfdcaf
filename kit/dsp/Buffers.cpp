#include "dsp/Buffers.h"

#include <algorithm>
#include <cstring>

namespace harlune {

ChannelBuffers::ChannelBuffers(int channelCount, int64_t capacity) : capacity_(0) {
    HARLUNE_PRECONDITION(channelCount >= 0, "ChannelBuffers with a negative channel count");
    storage_.resize(static_cast<size_t>(channelCount));
    pointers_.resize(static_cast<size_t>(channelCount));
    reserve(std::max<int64_t>(capacity, 1));
}

void ChannelBuffers::reserve(int64_t capacity) {
    if (capacity <= capacity_)
        return;
    for (size_t c = 0; c < storage_.size(); ++c) {
        storage_[c] = std::make_unique<float[]>(static_cast<size_t>(capacity)); // value-initialised: zeros
        pointers_[c] = storage_[c].get();
    }
    capacity_ = capacity;
}

std::vector<std::span<const float>> ChannelBuffers::buffers(int64_t count) const {
    HARLUNE_PRECONDITION(count >= 0 && count <= capacity_, "ChannelBuffers view beyond the capacity");
    std::vector<std::span<const float>> views;
    views.reserve(pointers_.size());
    for (float* p : pointers_)
        views.emplace_back(p, static_cast<size_t>(count));
    return views;
}

void ChannelBuffers::readZeroPadded(const AudioSource& source, FrameRange range,
                                    std::optional<FrameRange> limit, int64_t offset) {
    if (range.isEmpty())
        return;
    reserve(offset + range.length());
    for (float* p : pointers_)
        std::memset(p + offset, 0, static_cast<size_t>(range.length()) * sizeof(float));
    const FrameRange bounds = limit.value_or(source.fullRange()).clamped(source.fullRange());
    const FrameRange inside = range.clamped(bounds);
    if (inside.isEmpty())
        return;
    std::vector<float*> targets(pointers_.size());
    for (size_t c = 0; c < targets.size(); ++c)
        targets[c] = pointers_[c] + offset + (inside.lower - range.lower);
    source.read(inside, targets);
}

void DoubleScratch::reserve(int64_t capacity) {
    if (capacity <= capacity_)
        return;
    storage_ = std::make_unique<double[]>(static_cast<size_t>(capacity));
    capacity_ = capacity;
}

} // namespace harlune
