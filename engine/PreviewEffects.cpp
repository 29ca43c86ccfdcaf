#include "engine/PreviewEffects.h"

#include "base/Precondition.h"

#include <algorithm>

namespace harlune {

PreviewRuntime::PreviewRuntime(std::vector<std::shared_ptr<PreviewProcessor>> processors,
                               std::vector<bool> enabledFlags, int channelCount, int maxFrames)
    : appliedVersions(processors.size(), 0), enabled(enabledFlags.begin(), enabledFlags.end()),
      processMask(static_cast<size_t>(channelCount), 1), processors_(std::move(processors)),
      channelCount_(channelCount), maxFrames_(maxFrames),
      dry_(static_cast<size_t>(channelCount), std::vector<float>(static_cast<size_t>(maxFrames))) {
    HARLUNE_PRECONDITION(enabled.size() == processors_.size(), "one enabled flag per processor");
    HARLUNE_PRECONDITION(channelCount >= 1 && maxFrames >= 1, "a runtime needs channels and frames");
}

void PreviewRuntime::process(std::span<float* const> channels, int channelCount, int frames) noexcept {
    if (channelCount != channelCount_ || frames > maxFrames_ ||
        static_cast<int>(channels.size()) < channelCount)
        return;
    const auto count = static_cast<size_t>(frames);
    bool anyDry = false;
    for (size_t c = 0; c < static_cast<size_t>(channelCount); ++c) {
        if (!processMask[c]) {
            std::copy_n(channels[c], count, dry_[c].data());
            anyDry = true;
        }
    }
    const std::span<float* const> active = channels.first(static_cast<size_t>(channelCount));
    for (size_t p = 0; p < processors_.size(); ++p)
        if (enabled[p])
            processors_[p]->process(active, frames);
    if (anyDry)
        for (size_t c = 0; c < static_cast<size_t>(channelCount); ++c)
            if (!processMask[c])
                std::copy_n(dry_[c].data(), count, channels[c]);
}

void PreviewEffectsState::syncRuntime() noexcept {
    if (!runtime)
        return;
    PreviewRuntime& target = *runtime;
    const size_t count = std::min({target.appliedVersions.size(), versions.size(), enabled.size()});
    for (size_t i = 0; i < count; ++i) {
        if (target.appliedVersions[i] == versions[i])
            continue;
        target.enabled[i] = enabled[i];
        target.appliedVersions[i] = versions[i];
    }
    if (!processMask.empty() && processMask.size() == target.processMask.size())
        std::copy(processMask.begin(), processMask.end(), target.processMask.begin());
}

} // namespace harlune
