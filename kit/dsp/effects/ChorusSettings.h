#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>

namespace harlune {

enum class ModulationMode { chorus, flanger };

/// "chorus", "flanger".
std::string_view rawValue(ModulationMode mode);
std::optional<ModulationMode> modulationModeFromRawValue(std::string_view raw);
/// "Chorus", "Flanger".
std::string_view displayName(ModulationMode mode);

struct ChorusSettings {
    ModulationMode mode = ModulationMode::chorus;
    /// LFO rate, Hz.
    double rateHz = 0.8;
    double depth = 0.5;
    /// Base delay, milliseconds.
    double delayMs = 15;
    double feedback = 0;
    /// Only in chorus mode; values under 2 mean 1.
    int voices = 2;
    /// LFO phase offset across channels.
    double stereoSpread = 0.5;
    double mix = 0.5;

    friend bool operator==(const ChorusSettings&, const ChorusSettings&) = default;
};

void to_json(nlohmann::json& json, const ChorusSettings& settings);
void from_json(const nlohmann::json& json, ChorusSettings& settings);

} // namespace harlune
