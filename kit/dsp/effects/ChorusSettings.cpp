#include "dsp/effects/ChorusSettings.h"

#include "dsp/effects/SettingsJSON.h"

namespace harlune {

std::string_view rawValue(ModulationMode mode) {
    return mode == ModulationMode::chorus ? "chorus" : "flanger";
}

std::optional<ModulationMode> modulationModeFromRawValue(std::string_view raw) {
    if (raw == "chorus")
        return ModulationMode::chorus;
    if (raw == "flanger")
        return ModulationMode::flanger;
    return std::nullopt;
}

std::string_view displayName(ModulationMode mode) {
    return mode == ModulationMode::chorus ? "Chorus" : "Flanger";
}

void to_json(nlohmann::json& json, const ChorusSettings& s) {
    json = nlohmann::json{{"mode", std::string(rawValue(s.mode))},
                          {"rateHz", s.rateHz},
                          {"depth", s.depth},
                          {"delayMs", s.delayMs},
                          {"feedback", s.feedback},
                          {"voices", s.voices},
                          {"stereoSpread", s.stereoSpread},
                          {"mix", s.mix}};
}

void from_json(const nlohmann::json& json, ChorusSettings& s) {
    using namespace settingsJSON;
    s.mode = enumAt<ModulationMode>(json, "mode", modulationModeFromRawValue);
    read(json, "rateHz", s.rateHz);
    read(json, "depth", s.depth);
    read(json, "delayMs", s.delayMs);
    read(json, "feedback", s.feedback);
    read(json, "voices", s.voices);
    read(json, "stereoSpread", s.stereoSpread);
    read(json, "mix", s.mix);
}

} // namespace harlune
