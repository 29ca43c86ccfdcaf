#pragma once

#include "base/ChannelSpan.h"
#include "base/EffectProcessor.h"
#include "dsp/Buffers.h"
#include "dsp/effects/ConfigurableEffect.h"

#include <memory>
#include <optional>
#include <vector>

namespace harlune {

/// The chain the audio thread runs: the kit's processors, prepared and reset, with everything it
/// needs allocated when it is made. Made and dropped on the main thread; its mutable fields
/// (`appliedVersions`, `enabled`, `processMask`) and its processors' state belong to the audio
/// thread while it is published.
class PreviewRuntime {
public:
    static constexpr int defaultMaxFrames = 4096;

    /// `processors` are prepared for `channelCount` channels; `enabled` has one flag for each.
    PreviewRuntime(std::vector<std::shared_ptr<EffectProcessor>> processors, std::vector<bool> enabled,
                   int channelCount, int maxFrames = defaultMaxFrames);

    int channelCount() const { return channelCount_; }
    int maxFrames() const { return maxFrames_; }
    const std::vector<std::shared_ptr<EffectProcessor>>& processors() const { return processors_; }
    /// Processor `index` as one that takes settings; null for one that does not (a plug-in).
    ConfigurableEffect* configurable(size_t index) const { return configurables_[index]; }

    /// Audio thread: runs the enabled processors in place; channels whose mask is false come out
    /// as they went in (processors that mix channels still see them). A chunk of another channel
    /// count or longer than `maxFrames` passes untouched: a rebuild for its format is on its way.
    void process(ChannelSpan channels) noexcept;

    std::vector<int> appliedVersions; ///< last version applied by the audio thread; 0 when made
    std::vector<char> enabled;        ///< per processor, as last applied
    std::vector<char> processMask;    ///< per channel; false leaves the channel dry

private:
    std::vector<std::shared_ptr<EffectProcessor>> processors_;
    std::vector<ConfigurableEffect*> configurables_;
    int channelCount_;
    int maxFrames_;
    ChannelBuffers dry_;
};

/// What the effects rack publishes for the callback, behind the render state's effects lock.
/// Every list is parallel to the runtime's processors, except `processMask` (one per channel).
struct PreviewEffectsState {
    std::shared_ptr<PreviewRuntime> runtime;
    /// Settings to hand each processor when its version moves; absent for a plug-in.
    std::vector<std::optional<EffectSettings>> settings;
    std::vector<char> enabled;
    std::vector<int> versions;
    std::vector<char> processMask;
    bool isActive = false;
    /// A runtime the callback stopped running. The callback never drops a reference (that could
    /// free memory on the audio thread), so it leaves its old one here, and the main thread takes
    /// it out at its next store and lets go of it there (`RenderState::updateEffects`).
    std::shared_ptr<PreviewRuntime> handedBack;

    /// Audio thread, with the effects lock held and `isActive` true: hands the runtime the
    /// settings and enabled flags of every processor whose version moved, and the channel mask.
    void syncRuntime() noexcept;
};

/// A chain made on the main thread for one background job's offline render. Moving it over is
/// safe because the processors are new and nothing else uses them.
struct ProcessorHandoff {
    std::vector<std::shared_ptr<EffectProcessor>> chain;
};

} // namespace harlune
