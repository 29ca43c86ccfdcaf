#include "dsp/effects/DistortionSettings.h"

#include "dsp/effects/SettingsJSON.h"

#include <array>

namespace harlune {

namespace {

constexpr std::array<SaturationMode, 4> allModes{SaturationMode::soft, SaturationMode::tube,
                                                 SaturationMode::hard, SaturationMode::bitcrush};
constexpr std::array<std::string_view, 4> raws{"Soft Clip", "Tube", "Hard Clip", "Bit Crusher"};

} // namespace

std::span<const SaturationMode> allSaturationModes() {
    return allModes;
}
std::string_view rawValue(SaturationMode mode) {
    return raws[static_cast<size_t>(mode)];
}

std::optional<SaturationMode> saturationModeFromRawValue(std::string_view raw) {
    for (const auto mode : allModes)
        if (rawValue(mode) == raw)
            return mode;
    return std::nullopt;
}

void to_json(nlohmann::json& json, const DistortionSettings& s) {
    json = nlohmann::json{{"mode", std::string(rawValue(s.mode))},
                          {"driveDB", s.driveDB},
                          {"toneHz", s.toneHz},
                          {"outputDB", s.outputDB},
                          {"mix", s.mix},
                          {"bits", s.bits},
                          {"downsample", s.downsample}};
}

void from_json(const nlohmann::json& json, DistortionSettings& s) {
    using namespace settingsJSON;
    s.mode = enumAt<SaturationMode>(json, "mode", saturationModeFromRawValue);
    read(json, "driveDB", s.driveDB);
    read(json, "toneHz", s.toneHz);
    read(json, "outputDB", s.outputDB);
    read(json, "mix", s.mix);
    read(json, "bits", s.bits);
    read(json, "downsample", s.downsample);
}

} // namespace harlune
