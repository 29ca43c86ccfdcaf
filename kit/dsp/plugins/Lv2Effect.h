#pragma once

#include "dsp/plugins/Lv2World.h"
#include "dsp/plugins/PluginEffect.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace harlune {

/// An LV2 plug-in running as an effect processor.
///
/// Channels: a plug-in with at least as many audio inputs and outputs as the document has
/// channels runs as one instance; a narrower one runs as one instance per group of as many
/// channels as it has (so a mono plug-in runs once per channel). Inputs beyond a group's channels
/// repeat its channels (a stereo plug-in on mono hears the channel on both inputs), and outputs
/// beyond them are dropped.
///
/// An LV2 instance has its sample rate fixed when it is made, so `prepare` with a new rate makes
/// new instances; control values are kept. Every port is connected in `prepare`, to buffers
/// owned here; `process` copies the channels in and out, so plug-ins that can't run in place work.
///
/// Control values: the main thread writes them into atomics under a sequence count (even when
/// settled); `process` copies them when the count moved and stayed even across the copy, so a
/// run never sees half of a `restoreState`, and nothing on the audio thread waits or allocates.
class Lv2Effect final : public PluginEffect {
public:
    /// Makes one instance at 48 kHz at once, so that a plug-in that can't be loaded fails here
    /// (with `HarluneError`) rather than later in `prepare`.
    Lv2Effect(std::shared_ptr<Lv2World> world, Lv2PluginLayout layout);
    ~Lv2Effect() override;

    const PluginDescriptor& descriptor() const override { return layout_.descriptor; }
    /// Ranges at the rate last prepared (48 kHz before): some ports give their bounds as
    /// fractions of the sample rate.
    std::span<const PluginParameter> parameters() const override { return parameters_; }
    std::optional<std::string> stateData() const override;
    void restoreState(std::string_view data) override;
    void setParameter(std::string_view symbol, float value) override;

    /// The current value of a control input, as last set (NaN for an unknown symbol).
    float parameterValue(std::string_view symbol) const;

    int tailFrames() const override { return 0; }
    /// As the plug-in last reported it on its latency port; 0 without one.
    int latencyFrames() const override { return latency_.load(std::memory_order_relaxed); }

    /// Instances running now (one per channel group, after `prepare`).
    int instanceCount() const { return static_cast<int>(instances_.size()); }

protected:
    void doPrepare(double sampleRate, int channelCount, int maxFrames) override;
    void doProcess(ChannelSpan channels) noexcept override;
    void doReset() noexcept override;

private:
    struct Instance {
        LilvInstanceImpl* handle = nullptr;
        bool active = false;
        std::vector<float> controls;                 ///< one value per port, read for control ports
        std::vector<std::vector<float>> audioInputs; ///< one buffer of maxFrames per audio input
        std::vector<std::vector<float>> audioOutputs;
        std::vector<std::vector<float>> cvBuffers; ///< silent inputs and ignored outputs
    };

    /// A new instance at `sampleRate_`, connected and active.
    Instance makeInstance(int maxFrames);
    void freeInstance(Instance& instance) noexcept;
    /// Sets `parameters_` for `sampleRate`, and brings the values into the new ranges.
    void scaleParameters(double sampleRate);
    void connect(Instance& instance, int maxFrames);
    /// The value as the port takes it: finite, rounded for integers and toggles, in range.
    float normalised(size_t parameter, float value) const;
    /// Writes `values` (parameter index, value) as one change.
    void store(std::span<const std::pair<size_t, float>> values);
    /// Audio thread: copies a settled change of the control values into every instance.
    void syncControls() noexcept;

    std::shared_ptr<Lv2World> world_;
    Lv2PluginLayout layout_;
    std::vector<PluginParameter> parameters_; ///< main thread; as `layout_`'s, bounds scaled to the rate
    double sampleRate_ = 0;
    int groupWidth_ = 1; ///< channels per instance
    std::vector<Instance> instances_;

    std::unique_ptr<std::atomic<float>[]> values_; ///< one per parameter
    std::atomic<uint64_t> sequence_{0};            ///< odd while a change is being written
    std::mutex writers_;                           ///< main-thread writers only; never the audio thread
    uint64_t appliedSequence_ = 0;                 ///< audio thread
    std::vector<float> staging_;                   ///< audio thread: a change being copied
    std::atomic<int> latency_{0};
};

} // namespace harlune
