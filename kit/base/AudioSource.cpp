#include "base/AudioSource.h"

#include <cstring>

namespace harlune {

std::vector<std::vector<float>> AudioSource::readChannels(FrameRange range) const {
    const auto channels = static_cast<size_t>(std::max(0, channelCount()));
    std::vector<std::vector<float>> result(
        channels, std::vector<float>(static_cast<size_t>(std::max<int64_t>(0, range.length()))));
    if (range.isEmpty())
        return result;
    std::vector<float*> pointers(channels);
    for (size_t c = 0; c < channels; ++c)
        pointers[c] = result[c].data();
    read(range, pointers);
    return result;
}

ArraySource::ArraySource(std::vector<std::vector<float>> channels, double sampleRate)
    : channels_(std::move(channels)), sampleRate_(sampleRate) {
    HARLUNE_PRECONDITION(!channels_.empty(), "ArraySource needs at least one channel");
    for (const auto& channel : channels_)
        HARLUNE_PRECONDITION(channel.size() == channels_.front().size(),
                             "ArraySource channels differ in length");
}

void ArraySource::read(FrameRange range, ChannelPointers destination) const {
    HARLUNE_PRECONDITION(range.lower >= 0 && range.upper <= frameCount() && range.lower <= range.upper,
                         "ArraySource read outside the source");
    const size_t channels = std::min(destination.size(), channels_.size());
    const auto count = static_cast<size_t>(range.length());
    for (size_t c = 0; c < channels; ++c)
        if (count > 0)
            std::memcpy(destination[c], channels_[c].data() + range.lower, count * sizeof(float));
}

} // namespace harlune
