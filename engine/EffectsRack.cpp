#include "engine/EffectsRack.h"

#include "base/HarluneError.h"
#include "base/Precondition.h"
#include "dsp/effects/EffectFactory.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <thread>

namespace harlune {

namespace {

using namespace std::chrono_literals;

constexpr auto rebuildDelay = 60ms;
constexpr auto retirementAge = 2000ms;
constexpr auto pruneInterval = 2500ms;

std::vector<std::string> structuralKeys(const std::vector<EffectSlot>& slots) {
    std::vector<std::string> keys;
    keys.reserve(slots.size());
    for (const auto& slot : slots)
        keys.push_back(slot.structuralKey());
    return keys;
}

const EffectSlot* findSlot(const std::vector<EffectSlot>& slots, const Uuid& id) {
    const auto found =
        std::find_if(slots.begin(), slots.end(), [&](const EffectSlot& s) { return s.id == id; });
    return found == slots.end() ? nullptr : &*found;
}

const EffectSlot::Plugin* pluginOf(const EffectSlot& slot) {
    return std::get_if<EffectSlot::Plugin>(&slot.source);
}

// What an exception says, for a message to the user.
std::string describe(const std::exception& error) {
    if (const auto* harlune = dynamic_cast<const HarluneError*>(&error))
        return harlune->localizedDescription();
    return error.what();
}

} // namespace

EffectsRack::EffectsRack(RackScheduler& scheduler, PluginLoader loader)
    : scheduler_(scheduler), loader_(std::move(loader)) {}

EffectsRack::~EffectsRack() {
    *alive_ = false;
    if (rebuildTask_)
        scheduler_.cancel(*rebuildTask_);
    if (pruneTask_)
        scheduler_.cancel(*pruneTask_);
    // The render state may outlive the rack: leave it nothing of ours to run. Whatever a callback
    // still holds comes back through `handedBack` and is let go on the main thread.
    if (const auto renderState = renderState_.lock()) {
        PreviewEffectsState cleared;
        renderState->updateEffects([&](PreviewEffectsState& effects) {
            std::swap(cleared.runtime, effects.runtime);
            std::swap(cleared.settings, effects.settings);
            std::swap(cleared.enabled, effects.enabled);
            std::swap(cleared.versions, effects.versions);
            std::swap(cleared.processMask, effects.processMask);
            effects.isActive = false;
        });
    }
}

void EffectsRack::setSlots(std::vector<EffectSlot> slots) {
    if (slots == slots_)
        return;
    auto old = std::exchange(slots_, std::move(slots));
    startMissingLoads();
    restoreChangedPluginStates(old);
    slotsChanged(old);
    changed();
}

void EffectsRack::setExpandedSlotID(std::optional<Uuid> id) {
    if (id == expandedSlotID_)
        return;
    expandedSlotID_ = id;
    changed();
}

void EffectsRack::setPreviewEnabled(bool enabled) {
    if (enabled == previewEnabled_)
        return;
    previewEnabled_ = enabled;
    publishState();
    changed();
}

void EffectsRack::setTailMode(EffectTailMode mode) {
    if (mode == tailMode_)
        return;
    tailMode_ = mode;
    changed();
}

void EffectsRack::setProcessMask(std::vector<bool> mask) {
    if (mask == processMask_)
        return;
    processMask_ = std::move(mask);
    publishState();
    changed();
}

Uuid EffectsRack::add(EffectSettings settings) {
    EffectSlot slot{.source = std::move(settings)};
    const Uuid id = slot.id;
    auto slots = slots_;
    slots.push_back(std::move(slot));
    setSlots(std::move(slots));
    setExpandedSlotID(id);
    return id;
}

Uuid EffectsRack::addPlugin(PluginDescriptor descriptor, std::optional<std::string> state) {
    // `setSlots` marks the slot as loading before the rebuild it schedules (which skips it), and
    // starts the load.
    EffectSlot slot{.source = EffectSlot::Plugin{std::move(descriptor), std::move(state)}};
    const Uuid id = slot.id;
    auto slots = slots_;
    slots.push_back(std::move(slot));
    setSlots(std::move(slots));
    setExpandedSlotID(id);
    return id;
}

void EffectsRack::remove(const Uuid& id) {
    auto slots = slots_;
    std::erase_if(slots, [&](const EffectSlot& slot) { return slot.id == id; });
    setSlots(std::move(slots));
    plugins_.erase(id);
    if (expandedSlotID_ == id)
        setExpandedSlotID(std::nullopt);
}

void EffectsRack::move(const Uuid& id, int by) {
    const auto found =
        std::find_if(slots_.begin(), slots_.end(), [&](const EffectSlot& s) { return s.id == id; });
    if (found == slots_.end())
        return;
    const auto from = static_cast<int64_t>(found - slots_.begin());
    const int64_t to = std::clamp<int64_t>(from + by, 0, static_cast<int64_t>(slots_.size()) - 1);
    if (to == from)
        return;
    auto slots = slots_;
    std::swap(slots[static_cast<size_t>(from)], slots[static_cast<size_t>(to)]);
    setSlots(std::move(slots));
}

void EffectsRack::removeAll() {
    setSlots({});
    plugins_.clear();
    setExpandedSlotID(std::nullopt);
}

void EffectsRack::dismissError() {
    if (!lastError_)
        return;
    lastError_.reset();
    changed();
}

void EffectsRack::activate(const std::shared_ptr<RenderState>& renderState, double sampleRate,
                           int channelCount) {
    HARLUNE_PRECONDITION(renderState != nullptr && channelCount >= 1, "activating the rack without a stream");
    renderState_ = renderState;
    const Format format{sampleRate, channelCount};
    const bool formatChanged = !format_ || *format_ != format;
    format_ = format;
    const bool maskChanged = processMask_.size() != static_cast<size_t>(channelCount);
    if (maskChanged)
        processMask_.assign(static_cast<size_t>(channelCount), true);
    if (!formatChanged && runtime_ && structuralKeys(slots_) == runtimeKeys_)
        publishState();
    else
        rebuildNow();
    if (maskChanged)
        changed();
}

std::vector<EffectSlot> EffectsRack::activeSlots() const {
    std::vector<EffectSlot> active;
    for (const auto& slot : slots_)
        if (slot.isEnabled)
            active.push_back(slot);
    return active;
}

std::string EffectsRack::chainName() const {
    std::string name;
    for (const auto& slot : activeSlots())
        name += (name.empty() ? "" : " + ") + slot.name();
    return name.empty() ? "Effects" : name;
}

ProcessorHandoff EffectsRack::makeOfflineChain() const {
    ProcessorHandoff handoff;
    for (const auto& slot : activeSlots()) {
        if (const auto* settings = std::get_if<EffectSettings>(&slot.source)) {
            handoff.chain.push_back(EffectFactory::makeProcessor(*settings));
            continue;
        }
        const auto& plugin = std::get<EffectSlot::Plugin>(slot.source);
        // A fresh instance: the preview one keeps playing undisturbed while this one renders.
        auto instance = loader_(plugin.descriptor);
        if (instance == nullptr)
            throw HarluneError::codecUnavailable("no instance of " + plugin.descriptor.id);
        std::optional<std::string> state = plugin.state;
        if (const auto preview = plugins_.find(slot.id); preview != plugins_.end() && preview->second)
            if (auto data = preview->second->stateData())
                state = std::move(data);
        if (state)
            instance->restoreState(*state);
        instance->rendersOffline = true;
        handoff.chain.push_back(std::move(instance));
    }
    return handoff;
}

std::vector<PluginParameter> EffectsRack::pluginParameters(const Uuid& id) const {
    const auto instance = plugins_.find(id);
    if (instance == plugins_.end() || instance->second == nullptr)
        return {};
    const std::span<const PluginParameter> parameters = instance->second->parameters();
    return {parameters.begin(), parameters.end()};
}

std::optional<float> EffectsRack::gainReduction(const Uuid& id) const {
    const auto found = std::find(preparedSlotIDs_.begin(), preparedSlotIDs_.end(), id);
    if (found == preparedSlotIDs_.end() || !runtime_)
        return std::nullopt;
    const auto index = static_cast<size_t>(found - preparedSlotIDs_.begin());
    if (index >= runtime_->processors().size())
        return std::nullopt;
    const auto* meter = dynamic_cast<const GainReductionMetering*>(runtime_->processors()[index].get());
    if (meter == nullptr)
        return std::nullopt;
    return meter->gainReductionDB();
}

void EffectsRack::slotsChanged(const std::vector<EffectSlot>& old) {
    if (!format_)
        return;
    if (structuralKeys(old) != structuralKeys(slots_)) {
        scheduleRebuild();
        return;
    }
    // Same structure: each changed slot is a parameter change of its running processor. A plug-in
    // whose state alone moved has had it restored on its instance already, and needs nothing here.
    bool differs = false;
    for (size_t i = 0; i < slots_.size(); ++i) {
        const EffectSlot& before = old[i];
        const EffectSlot& after = slots_[i];
        const auto* pluginBefore = pluginOf(before);
        const auto* pluginAfter = pluginOf(after);
        const bool sourceDiffers = pluginBefore != nullptr && pluginAfter != nullptr
                                       ? pluginBefore->descriptor != pluginAfter->descriptor
                                       : before.source != after.source;
        if (before.id == after.id && before.isEnabled == after.isEnabled && !sourceDiffers)
            continue;
        differs = true;
        const auto prepared = std::find(preparedSlotIDs_.begin(), preparedSlotIDs_.end(), after.id);
        const auto p = static_cast<size_t>(prepared - preparedSlotIDs_.begin());
        if (prepared != preparedSlotIDs_.end() && p < versions_.size())
            ++versions_[p];
    }
    if (differs)
        publishState();
}

void EffectsRack::scheduleRebuild() {
    if (!format_)
        return;
    if (rebuildTask_)
        scheduler_.cancel(*rebuildTask_);
    rebuildTask_.reset();
    // Dry in the gap rather than a chain that no longer matches the slots.
    if (const auto renderState = renderState_.lock())
        renderState->updateEffects([](PreviewEffectsState& effects) { effects.isActive = false; });
    rebuildTask_ = scheduler_.schedule(rebuildDelay, [this, alive = alive_] {
        if (!*alive)
            return;
        rebuildTask_.reset();
        rebuildNow();
    });
}

void EffectsRack::rebuildNow() {
    const auto renderState = renderState_.lock();
    if (!format_ || !renderState)
        return;
    if (rebuildTask_)
        scheduler_.cancel(*rebuildTask_);
    rebuildTask_.reset();

    // Plug-in instances are shared with the runtime that may be playing: it must be off the audio
    // thread before they are prepared again.
    const bool reusesInstances = std::any_of(slots_.begin(), slots_.end(), [&](const EffectSlot& slot) {
        return pluginOf(slot) != nullptr && plugins_.contains(slot.id);
    });
    if (reusesInstances && runtime_)
        takeRuntimeOffAudioThread(*renderState);

    std::vector<std::shared_ptr<EffectProcessor>> processors;
    std::vector<bool> enabled;
    std::vector<Uuid> preparedIDs;
    bool errorChanged = false;
    for (const auto& slot : slots_) {
        std::shared_ptr<EffectProcessor> processor;
        try {
            if (const auto* settings = std::get_if<EffectSettings>(&slot.source)) {
                processor = EffectFactory::makeProcessor(*settings);
            } else {
                const auto instance = plugins_.find(slot.id);
                if (instance == plugins_.end() || instance->second == nullptr)
                    continue; // still loading: a rebuild follows the load
                processor = instance->second;
            }
            processor->prepare(format_->sampleRate, format_->channels, maxFrames);
        } catch (const std::exception& error) {
            const std::string message =
                "\u201C" + slot.name() + "\u201D can\u2019t run at this format: " + describe(error);
            if (lastError_ != message) {
                lastError_ = message;
                errorChanged = true;
            }
            continue;
        }
        processor->reset();
        processors.push_back(std::move(processor));
        enabled.push_back(slot.isEnabled);
        preparedIDs.push_back(slot.id);
    }

    auto runtime = std::make_shared<PreviewRuntime>(std::move(processors), std::move(enabled),
                                                    format_->channels, maxFrames);
    if (runtime_)
        retired_.push_back({std::move(runtime_), scheduler_.now()});
    runtime_ = std::move(runtime);
    runtimeKeys_ = structuralKeys(slots_);
    versions_.assign(preparedIDs.size(), 1);
    preparedSlotIDs_ = std::move(preparedIDs);

    // The runtime and its lists go in under one lock, so that no callback pairs the new runtime
    // with the old lists.
    PreviewEffectsState fresh;
    fillState(fresh);
    fresh.runtime = runtime_;
    renderState->updateEffects([&](PreviewEffectsState& effects) {
        std::swap(effects.runtime, fresh.runtime);
        std::swap(effects.settings, fresh.settings);
        std::swap(effects.enabled, fresh.enabled);
        std::swap(effects.versions, fresh.versions);
        std::swap(effects.processMask, fresh.processMask);
        effects.isActive = fresh.isActive;
    });
    pruneRetired();
    if (errorChanged)
        changed();
}

void EffectsRack::publishState() {
    const auto renderState = renderState_.lock();
    if (!renderState || !runtime_)
        return;
    PreviewEffectsState fresh;
    fillState(fresh);
    // The replaced lists land in `fresh` and are freed here, after the lock.
    renderState->updateEffects([&](PreviewEffectsState& effects) {
        std::swap(effects.settings, fresh.settings);
        std::swap(effects.enabled, fresh.enabled);
        std::swap(effects.versions, fresh.versions);
        std::swap(effects.processMask, fresh.processMask);
        effects.isActive = fresh.isActive;
    });
}

void EffectsRack::fillState(PreviewEffectsState& state) const {
    // Parallel to the processors: a prepared slot that has gone since keeps its place, switched
    // off, until the rebuild that is already on its way.
    bool anyPrepared = false;
    state.settings.reserve(preparedSlotIDs_.size());
    state.enabled.reserve(preparedSlotIDs_.size());
    for (const auto& id : preparedSlotIDs_) {
        const EffectSlot* slot = findSlot(slots_, id);
        std::optional<EffectSettings> settings;
        if (slot != nullptr)
            if (const auto* builtin = std::get_if<EffectSettings>(&slot->source))
                settings = *builtin;
        state.settings.push_back(std::move(settings));
        state.enabled.push_back(static_cast<char>(slot != nullptr && slot->isEnabled));
        anyPrepared = anyPrepared || slot != nullptr;
    }
    state.versions = versions_;
    state.processMask.assign(processMask_.begin(), processMask_.end());
    state.isActive = previewEnabled_ && anyPrepared && !rebuildTask_;
}

void EffectsRack::takeRuntimeOffAudioThread(RenderState& renderState) {
    renderState.updateEffects([](PreviewEffectsState& effects) { effects.isActive = false; });
    // A callback that started before the store may still run the old chain; one that starts
    // after it finds the preview inactive and lets go. So the wait is for one callback at most.
    const uint64_t epoch = renderState.callbackEpoch.load();
    while (renderState.mayStillHold(epoch))
        std::this_thread::yield();
}

void EffectsRack::pruneRetired() {
    const auto now = scheduler_.now();
    std::erase_if(retired_, [&](const Retired& entry) { return now - entry.since > retirementAge; });
    if (retired_.empty() || pruneTask_)
        return;
    pruneTask_ = scheduler_.schedule(pruneInterval, [this, alive = alive_] {
        if (!*alive)
            return;
        pruneTask_.reset();
        pruneRetired();
    });
}

void EffectsRack::startMissingLoads() {
    for (const auto& slot : slots_) {
        const auto* plugin = pluginOf(slot);
        if (plugin == nullptr || loadingSlots_.contains(slot.id))
            continue;
        if (const auto instance = plugins_.find(slot.id); instance != plugins_.end()) {
            if (instance->second != nullptr && instance->second->descriptor().id == plugin->descriptor.id)
                continue;
            plugins_.erase(instance); // the slot now names another plug-in
        }
        loadingSlots_.insert(slot.id);
        scheduler_.runInBackground([loader = loader_, descriptor = plugin->descriptor, id = slot.id,
                                    alive = alive_, this]() -> std::function<void()> {
            try {
                auto instance = loader(descriptor);
                if (instance == nullptr)
                    throw HarluneError::codecUnavailable("no instance of " + descriptor.id);
                return [this, alive, id, instance = std::move(instance)]() mutable {
                    if (*alive)
                        pluginLoaded(id, std::move(instance));
                };
            } catch (const std::exception& error) {
                return [this, alive, id, name = descriptor.name, message = describe(error)] {
                    if (*alive)
                        pluginFailed(id, name, message);
                };
            }
        });
    }
}

void EffectsRack::pluginLoaded(const Uuid& id, std::shared_ptr<PluginEffect> instance) {
    loadingSlots_.erase(id);
    const EffectSlot* slot = findSlot(slots_, id);
    const auto* plugin = slot != nullptr ? pluginOf(*slot) : nullptr;
    if (plugin != nullptr && plugin->descriptor.id != instance->descriptor().id) {
        // The slot changed its plug-in while this one loaded: load the one it names now.
        startMissingLoads();
        changed();
        return;
    }
    if (plugin != nullptr && plugin->state) {
        try {
            restorePluginState(*instance, *plugin);
        } catch (const std::exception& error) {
            pluginFailed(id, plugin->descriptor.name, describe(error));
            return;
        }
    }
    plugins_[id] = std::move(instance);
    scheduleRebuild();
    changed();
}

void EffectsRack::pluginFailed(const Uuid& id, const std::string& name, const std::string& message) {
    loadingSlots_.erase(id);
    auto slots = slots_;
    std::erase_if(slots, [&](const EffectSlot& slot) { return slot.id == id; });
    setSlots(std::move(slots));
    setError("Couldn\u2019t load \u201C" + name + "\u201D: " + message);
}

void EffectsRack::restoreChangedPluginStates(const std::vector<EffectSlot>& old) {
    for (const auto& slot : slots_) {
        const auto* plugin = pluginOf(slot);
        const auto instance = plugins_.find(slot.id);
        if (plugin == nullptr || instance == plugins_.end() || instance->second == nullptr)
            continue;
        const EffectSlot* before = findSlot(old, slot.id);
        const auto* pluginBefore = before != nullptr ? pluginOf(*before) : nullptr;
        if (pluginBefore != nullptr && pluginBefore->state == plugin->state)
            continue;
        // Lock-free on the instance, safe while it runs: a parameter change without any rebuild.
        try {
            restorePluginState(*instance->second, *plugin);
        } catch (const std::exception& error) {
            setError("Couldn\u2019t load \u201C" + plugin->descriptor.name + "\u201D: " + describe(error));
        }
    }
}

void EffectsRack::restorePluginState(PluginEffect& instance, const EffectSlot::Plugin& plugin) {
    if (plugin.state) {
        instance.restoreState(*plugin.state);
        return;
    }
    nlohmann::json defaults = nlohmann::json::object();
    for (const auto& parameter : instance.parameters())
        defaults[parameter.symbol] = parameter.defaultValue;
    instance.restoreState(defaults.dump());
}

void EffectsRack::setError(std::string message) {
    if (lastError_ == message)
        return;
    lastError_ = std::move(message);
    changed();
}

void EffectsRack::changed() {
    if (onChange)
        onChange();
}

} // namespace harlune
