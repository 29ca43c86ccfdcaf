#pragma once

#include <memory>
#include <span>
#include <vector>

namespace harlune {

/// One prepared effect as the preview runs it: in place on all channels of a chunk. The effects
/// rack adapts its processors to this; until then a runtime holds none and the preview is dry.
class PreviewProcessor {
public:
    virtual ~PreviewProcessor() = default;
    /// Audio thread: no allocation, no lock, no failure.
    virtual void process(std::span<float* const> channels, int frameCount) noexcept = 0;
};

/// The chain the audio thread runs, with everything it needs allocated when it is made. Made and
/// dropped on the main thread; its mutable fields (`appliedVersions`, `enabled`, `processMask`)
/// and its processors' state belong to the audio thread while it is published.
class PreviewRuntime {
public:
    static constexpr int defaultMaxFrames = 4096;

    PreviewRuntime(std::vector<std::shared_ptr<PreviewProcessor>> processors, std::vector<bool> enabled,
                   int channelCount, int maxFrames = defaultMaxFrames);

    int channelCount() const { return channelCount_; }
    int maxFrames() const { return maxFrames_; }
    const std::vector<std::shared_ptr<PreviewProcessor>>& processors() const { return processors_; }

    /// Runs the enabled processors in place; channels whose mask is false come out as they went
    /// in. A chunk of another channel count or longer than `maxFrames` passes untouched.
    void process(std::span<float* const> channels, int channelCount, int frames) noexcept;

    std::vector<int> appliedVersions; ///< last version applied by the audio thread; 0 when made
    std::vector<char> enabled;        ///< per processor, as last applied
    std::vector<char> processMask;    ///< per channel; false leaves the channel dry

private:
    std::vector<std::shared_ptr<PreviewProcessor>> processors_;
    int channelCount_;
    int maxFrames_;
    std::vector<std::vector<float>> dry_;
};

/// What the effects rack publishes for the callback, behind the render state's effects lock.
/// Every list is parallel to the runtime's processors, except `processMask` (one per channel).
struct PreviewEffectsState {
    std::shared_ptr<PreviewRuntime> runtime;
    std::vector<char> enabled;
    std::vector<int> versions;
    std::vector<char> processMask;
    bool isActive = false;

    /// Audio thread, with the effects lock held and `isActive` true: hands the runtime the
    /// enabled flags of every processor whose version moved, and the channel mask.
    void syncRuntime() noexcept;
};

} // namespace harlune
