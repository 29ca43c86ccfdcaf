#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string_view>

namespace harlune {

enum class SaturationMode { soft, tube, hard, bitcrush };

std::span<const SaturationMode> allSaturationModes();
/// The raw value, which is also the title: "Soft Clip", "Tube", "Hard Clip", "Bit Crusher".
std::string_view rawValue(SaturationMode mode);
std::optional<SaturationMode> saturationModeFromRawValue(std::string_view raw);

struct DistortionSettings {
    SaturationMode mode = SaturationMode::soft;
    double driveDB = 12;
    /// Hz, the tone filter's cutoff.
    double toneHz = 12000;
    double outputDB = -6;
    double mix = 1.0;
    /// Bit crusher resolution.
    double bits = 8;
    /// Bit crusher sample-hold factor.
    double downsample = 1.0;

    friend bool operator==(const DistortionSettings&, const DistortionSettings&) = default;
};

void to_json(nlohmann::json& json, const DistortionSettings& settings);
void from_json(const nlohmann::json& json, DistortionSettings& settings);

} // namespace harlune
