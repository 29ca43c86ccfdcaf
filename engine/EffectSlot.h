#pragma once

#include "base/Uuid.h"
#include "dsp/effects/EffectSettings.h"
#include "dsp/plugins/PluginDescriptor.h"

#include <string>
#include <variant>

namespace harlune {

/// One place in the effects rack: a built-in effect with its settings, or an installed plug-in.
/// A value; equal when every field is.
struct EffectSlot {
    /// A plug-in slot: which plug-in, and its control values as `PluginEffect::stateData` text
    /// (absent: the plug-in's defaults). A change of `state` alone is a parameter change.
    struct Plugin {
        PluginDescriptor descriptor;
        std::optional<std::string> state;
        friend bool operator==(const Plugin&, const Plugin&) = default;
    };
    using Source = std::variant<EffectSettings, Plugin>;

    Uuid id = Uuid::random(); ///< fixed for the slot's life
    bool isEnabled = true;
    Source source;

    /// Two states of a slot with the same key can share one running processor: the id and the
    /// effect's kind (or the plug-in's URI).
    std::string structuralKey() const;
    /// The effect's display name, or the plug-in's own name.
    std::string name() const;

    friend bool operator==(const EffectSlot&, const EffectSlot&) = default;
};

} // namespace harlune
