#pragma once

#include "base/Uuid.h"
#include "core/Processing.h"
#include "dsp/plugins/PluginEffect.h"
#include "engine/EffectSlot.h"
#include "engine/PreviewEffects.h"
#include "engine/RackScheduler.h"
#include "engine/RenderState.h"

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace harlune {

/// The user's ordered list of live effects, one per editor model. The main thread owns the list
/// and builds what the audio thread runs: a parameter change is published as a new version that
/// the callback applies to the running processor; a structural change (a slot added, removed,
/// moved, or of another kind) builds a new `PreviewRuntime` 60 ms later, so that a burst of
/// changes costs one rebuild. Nothing happens to the audio until the first `activate`.
///
/// Every operation is for the main thread (the thread that runs `scheduler`'s tasks).
class EffectsRack {
public:
    /// Makes a plug-in instance; may run on a background job. Throws `HarluneError`.
    using PluginLoader = std::function<std::shared_ptr<PluginEffect>(const PluginDescriptor&)>;

    static constexpr int maxFrames = PreviewRuntime::defaultMaxFrames;

    /// `scheduler` must outlive the rack.
    explicit EffectsRack(RackScheduler& scheduler, PluginLoader loader = &PluginEffect::instantiate);
    ~EffectsRack();
    EffectsRack(const EffectsRack&) = delete;
    EffectsRack& operator=(const EffectsRack&) = delete;

    // Observed fields. `onChange` runs after any of them changes (the editor turns it into signals).
    const std::vector<EffectSlot>& slots() const { return slots_; }
    /// Stores a list that differs and reacts as to any change of slots.
    void setSlots(std::vector<EffectSlot> slots);
    std::optional<Uuid> expandedSlotID() const { return expandedSlotID_; }
    void setExpandedSlotID(std::optional<Uuid> id);
    bool previewEnabled() const { return previewEnabled_; }
    void setPreviewEnabled(bool enabled);
    EffectTailMode tailMode() const { return tailMode_; }
    void setTailMode(EffectTailMode mode);
    /// Plug-in slots whose instance is still being made.
    const std::set<Uuid>& loadingSlots() const { return loadingSlots_; }
    /// The message the rack view shows until dismissed.
    const std::optional<std::string>& lastError() const { return lastError_; }
    /// One flag per document channel; false leaves that channel dry in the preview.
    const std::vector<bool>& processMask() const { return processMask_; }
    void setProcessMask(std::vector<bool> mask);
    std::function<void()> onChange;

    /// Appends an enabled slot, opens its editor, and returns its id.
    Uuid add(EffectSettings settings);
    /// As `add`, and loads the plug-in on a background job (`loadingSlots` meanwhile).
    Uuid addPlugin(PluginDescriptor descriptor, std::optional<std::string> state = std::nullopt);
    void remove(const Uuid& id);
    /// Moves the slot by `by` places, clamped to the ends.
    void move(const Uuid& id, int by);
    void removeAll();
    void dismissError();

    /// On each play: publishes for `renderState`, rebuilding at once (before the first callback)
    /// when the format or the structure changed since the last runtime.
    void activate(const std::shared_ptr<RenderState>& renderState, double sampleRate, int channelCount);

    /// The enabled slots, in order.
    std::vector<EffectSlot> activeSlots() const;
    /// The names of the active slots joined with " + ", or "Effects" when there are none.
    std::string chainName() const;
    /// New processors for the active slots, for one offline render; plug-ins get fresh instances
    /// with the preview instance's state. Throws what a load or state restore throws.
    ProcessorHandoff makeOfflineChain() const;
    /// dB, the current figure of that slot's running processor, if it meters gain reduction.
    std::optional<float> gainReduction(const Uuid& id) const;
    /// The controls of a plug-in slot's loaded instance, for its editor; empty while it loads or
    /// for a built-in.
    std::vector<PluginParameter> pluginParameters(const Uuid& id) const;

    // Introspection for tests and the rack view.
    const std::shared_ptr<PreviewRuntime>& runtime() const { return runtime_; }
    const std::vector<int>& versions() const { return versions_; }
    size_t retiredCount() const { return retired_.size(); }

private:
    struct Format {
        double sampleRate;
        int channels;
        friend bool operator==(const Format&, const Format&) = default;
    };
    struct Retired {
        std::shared_ptr<PreviewRuntime> runtime;
        RackScheduler::Clock::time_point since;
    };

    void slotsChanged(const std::vector<EffectSlot>& old);
    void scheduleRebuild();
    void rebuildNow();
    void publishState();
    void pruneRetired();
    void changed();

    /// Starts a background load for every plug-in slot that has no instance and none coming.
    void startMissingLoads();
    void pluginLoaded(const Uuid& id, std::shared_ptr<PluginEffect> instance);
    void pluginFailed(const Uuid& id, const std::string& name, const std::string& message);
    /// Hands each loaded instance the state of its slot where that differs from `old`.
    void restoreChangedPluginStates(const std::vector<EffectSlot>& old);
    /// Gives `instance` the slot's state, or its defaults when the slot has none. Throws.
    static void restorePluginState(PluginEffect& instance, const EffectSlot::Plugin& plugin);
    /// The lists of `PreviewEffectsState` for the current runtime, parallel to its processors.
    void fillState(PreviewEffectsState& state) const;
    /// Makes sure no callback runs the current runtime any more, before its plug-in instances
    /// are prepared again for the next one.
    void takeRuntimeOffAudioThread(RenderState& renderState);
    void setError(std::string message);

    RackScheduler& scheduler_;
    PluginLoader loader_;
    std::vector<EffectSlot> slots_;
    std::optional<Uuid> expandedSlotID_;
    bool previewEnabled_ = true;
    EffectTailMode tailMode_ = EffectTailMode::mixIntoFollowing;
    std::set<Uuid> loadingSlots_;
    std::optional<std::string> lastError_;
    std::vector<bool> processMask_;
    std::unordered_map<Uuid, std::shared_ptr<PluginEffect>> plugins_;
    std::weak_ptr<RenderState> renderState_;
    std::optional<Format> format_;
    std::shared_ptr<PreviewRuntime> runtime_;
    std::vector<std::string> runtimeKeys_;
    std::vector<int> versions_;
    std::vector<Retired> retired_;
    std::optional<RackScheduler::TaskID> rebuildTask_;
    std::optional<RackScheduler::TaskID> pruneTask_;
    std::vector<Uuid> preparedSlotIDs_;
    /// Outstanding background loads check this before touching the rack.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace harlune
