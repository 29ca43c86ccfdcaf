#include "engine/EffectsRack.h"

// Placeholder bodies: the list works, nothing is built for the audio thread yet.

namespace harlune {

EffectsRack::EffectsRack(RackScheduler& scheduler, PluginLoader loader)
    : scheduler_(scheduler), loader_(std::move(loader)) {}

EffectsRack::~EffectsRack() {
    *alive_ = false;
}

void EffectsRack::setSlots(std::vector<EffectSlot> slots) {
    if (slots == slots_)
        return;
    auto old = std::exchange(slots_, std::move(slots));
    slotsChanged(old);
    changed();
}

void EffectsRack::setExpandedSlotID(std::optional<Uuid> id) {
    expandedSlotID_ = id;
    changed();
}

void EffectsRack::setPreviewEnabled(bool enabled) {
    previewEnabled_ = enabled;
    changed();
}

void EffectsRack::setTailMode(EffectTailMode mode) {
    tailMode_ = mode;
    changed();
}

void EffectsRack::setProcessMask(std::vector<bool> mask) {
    processMask_ = std::move(mask);
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
    EffectSlot slot{.source = EffectSlot::Plugin{std::move(descriptor), std::move(state)}};
    const Uuid id = slot.id;
    auto slots = slots_;
    slots.push_back(std::move(slot));
    setSlots(std::move(slots));
    return id;
}

void EffectsRack::remove(const Uuid& id) {
    auto slots = slots_;
    std::erase_if(slots, [&](const EffectSlot& slot) { return slot.id == id; });
    setSlots(std::move(slots));
}

void EffectsRack::move(const Uuid&, int) {}

void EffectsRack::removeAll() {
    setSlots({});
}

void EffectsRack::dismissError() {
    lastError_.reset();
    changed();
}

void EffectsRack::activate(const std::shared_ptr<RenderState>& renderState, double sampleRate,
                           int channelCount) {
    renderState_ = renderState;
    format_ = Format{sampleRate, channelCount};
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
    return {};
}

std::optional<float> EffectsRack::gainReduction(const Uuid&) const {
    return std::nullopt;
}

void EffectsRack::slotsChanged(const std::vector<EffectSlot>&) {}
void EffectsRack::scheduleRebuild() {}
void EffectsRack::rebuildNow() {}
void EffectsRack::publishState() {}
void EffectsRack::pruneRetired() {}

void EffectsRack::changed() {
    if (onChange)
        onChange();
}

} // namespace harlune
