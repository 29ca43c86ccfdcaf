#include "engine/PreviewEffects.h"

#include "base/Precondition.h"

#include <algorithm>

namespace harlune {

PreviewRuntime::PreviewRuntime(std::vector<std::shared_ptr<EffectProcessor>> processors,
                               std::vector<bool> enabledFlags, int channelCount, int maxFrames)
    : appliedVersions(processors.size(), 0), enabled(enabledFlags.begin(), enabledFlags.end()),
      processMask(static_cast<size_t>(std::max(channelCount, 0)), 1), processors_(std::move(processors)),
      channelCount_(channelCount), maxFrames_(maxFrames), dry_(std::max(channelCount, 0), maxFrames) {
    HARLUNE_PRECONDITION(enabled.size() == processors_.size(), "one enabled flag per processor");
    HARLUNE_PRECONDITION(channelCount >= 1 && maxFrames >= 1, "a runtime needs channels and frames");
    for (const auto& processor : processors_) {
        HARLUNE_PRECONDITION(processor != nullptr && processor->isPrepared(),
                             "a runtime runs prepared processors only");
        configurables_.push_back(dynamic_cast<ConfigurableEffect*>(processor.get()));
    }
}

void PreviewRuntime::process(ChannelSpan channels) noexcept {
    if (channels.channelCount() != channelCount_ || channels.frameCount() > maxFrames_)
        return;
    const auto count = static_cast<size_t>(channels.frameCount());
    bool anyDry = false;
    for (int c = 0; c < channelCount_; ++c) {
        if (!processMask[static_cast<size_t>(c)]) {
            std::copy_n(channels.channel(c), count, dry_.channel(c));
            anyDry = true;
        }
    }
    for (size_t p = 0; p < processors_.size(); ++p)
        if (enabled[p])
            processors_[p]->process(channels);
    if (anyDry)
        for (int c = 0; c < channelCount_; ++c)
            if (!processMask[static_cast<size_t>(c)])
                std::copy_n(dry_.channel(c), count, channels.channel(c));
}

void PreviewEffectsState::syncRuntime() noexcept {
    if (!runtime)
        return;
    PreviewRuntime& target = *runtime;
    const size_t count = std::min({target.appliedVersions.size(), versions.size(), enabled.size()});
    for (size_t i = 0; i < count; ++i) {
        if (target.appliedVersions[i] == versions[i])
            continue;
        ConfigurableEffect* const effect = target.configurable(i);
        if (effect != nullptr && i < settings.size() && settings[i])
            effect->apply(*settings[i]);
        target.enabled[i] = enabled[i];
        target.appliedVersions[i] = versions[i];
    }
    if (!processMask.empty() && processMask.size() == target.processMask.size())
        std::copy(processMask.begin(), processMask.end(), target.processMask.begin());
}

} // namespace harlune
