#include "engine/devices/StreamResampler.h"

#include "base/Precondition.h"

#include <algorithm>
#include <cmath>

namespace harlune {

StreamResampler::StreamResampler(RenderSource& source, int channels, double sourceRate, double deviceRate,
                                 int sourceBlockFrames)
    : source_(source), channels_(channels), step_(sourceRate / deviceRate), block_(sourceBlockFrames) {
    HARLUNE_PRECONDITION(channels >= 1 && channels <= maxChannels, "1 or 2 channels");
    HARLUNE_PRECONDITION(sourceRate > 0 && deviceRate > 0 && sourceBlockFrames > 0,
                         "positive rates and block");
    for (auto& channel : history_)
        channel.assign(static_cast<size_t>(block_ + 8), 0.0f);
}

void StreamResampler::pull() noexcept {
    // Keep the frame before the read position and everything after it.
    const auto keepFrom = static_cast<int64_t>(std::floor(position_)) - 1;
    if (keepFrom > 0) {
        for (int c = 0; c < channels_; ++c) {
            auto& channel = history_[static_cast<size_t>(c)];
            std::copy(channel.begin() + keepFrom, channel.begin() + held_, channel.begin());
        }
        held_ -= keepFrom;
        position_ -= static_cast<double>(keepFrom);
    }
    std::array<float*, maxChannels> pointers{};
    for (int c = 0; c < channels_; ++c)
        pointers[static_cast<size_t>(c)] = history_[static_cast<size_t>(c)].data() + held_;
    bool silence = false;
    source_.render(block_, std::span<float* const>(pointers.data(), static_cast<size_t>(channels_)), silence);
    lastPullSilent_ = lastPullSilent_ && silence;
    held_ += block_;
}

void StreamResampler::render(int frames, std::span<float* const> outputs, bool& isSilence) noexcept {
    lastPullSilent_ = true;
    bool pulled = false;
    for (int i = 0; i < frames; ++i) {
        while (static_cast<int64_t>(std::floor(position_)) + 2 >= held_) {
            pull();
            pulled = true;
        }
        const auto index = static_cast<size_t>(std::floor(position_));
        const auto p = static_cast<float>(position_ - std::floor(position_));
        for (int c = 0; c < channels_ && c < static_cast<int>(outputs.size()); ++c) {
            const float* x = history_[static_cast<size_t>(c)].data() + index;
            const float xm1 = x[-1], x0 = x[0], x1 = x[1], x2 = x[2];
            float* const out = outputs[static_cast<size_t>(c)];
            if (out != nullptr)
                out[i] =
                    x0 +
                    0.5f * p *
                        (x1 - xm1 +
                         p * (2.0f * xm1 - 5.0f * x0 + 4.0f * x1 - x2 + p * (3.0f * (x0 - x1) + x2 - xm1)));
        }
        position_ += step_;
    }
    isSilence = pulled && lastPullSilent_;
}

} // namespace harlune
