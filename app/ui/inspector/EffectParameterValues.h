#pragma once

#include "dsp/effects/EffectParameters.h"
#include "dsp/plugins/PluginEffect.h"

#include <optional>
#include <span>
#include <string>

namespace harlune {

// Reading and writing one described parameter of a settings value by its key, so that one editor
// serves every effect. The settings go through their JSON form, whose keys are the field names:
// main thread, at the pace of a control, never on the audio thread. Numbers are as in the
// description table: toggles 0 or 1, choices the index into `choices`.

double parameterValue(const EffectSettings& settings, const EffectParameter& parameter);
/// `settings` with one parameter changed, every other field (EQ bands, a learnt noise profile)
/// as it was.
EffectSettings withParameter(const EffectSettings& settings, const EffectParameter& parameter, double value);

double bandParameterValue(const EQBand& band, const EffectParameter& parameter);
EQBand withBandParameter(const EQBand& band, const EffectParameter& parameter, double value);

/// A plug-in control's value in `state` (`PluginEffect::stateData` text), or its default.
double pluginValue(const std::optional<std::string>& state, const PluginParameter& parameter);
/// The state with one control changed; controls absent from it take their defaults, so that the
/// text always names every control.
std::string withPluginValue(const std::optional<std::string>& state,
                            std::span<const PluginParameter> parameters, const std::string& symbol,
                            double value);

} // namespace harlune
