#include "engine/EffectSlot.h"

namespace harlune {

std::string EffectSlot::structuralKey() const {
    if (const auto* settings = std::get_if<EffectSettings>(&source))
        return id.string() + "-" + std::string(rawValue(settings->kind()));
    return id.string() + "-lv2-" + std::get<Plugin>(source).descriptor.id;
}

std::string EffectSlot::name() const {
    if (const auto* settings = std::get_if<EffectSettings>(&source))
        return std::string(displayName(settings->kind()));
    return std::get<Plugin>(source).descriptor.name;
}

} // namespace harlune
