#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>

namespace harlune {

enum class DetectionMode { peak, rms };

/// "peak", "rms".
std::string_view rawValue(DetectionMode mode);
std::optional<DetectionMode> detectionModeFromRawValue(std::string_view raw);
/// "Peak", "RMS".
std::string_view displayName(DetectionMode mode);

struct CompressorSettings {
    double thresholdDB = -18;
    /// n:1.
    double ratio = 4;
    /// Full knee width in dB.
    double kneeDB = 6;
    double attackMs = 10;
    double releaseMs = 120;
    /// Manual makeup in dB.
    double makeupGainDB = 0;
    bool autoMakeup = false;
    DetectionMode detection = DetectionMode::peak;
    /// One gain for all channels.
    bool stereoLink = true;
    /// 0 dry to 1 wet.
    double mix = 1.0;

    /// The static curve without makeup, as the editor draws it: output dB for a steady input.
    double staticOutputDB(double inputDB) const;
    /// `makeupGainDB`, plus with `autoMakeup` half of what a 0 dBFS signal loses.
    double effectiveMakeupDB() const;

    friend bool operator==(const CompressorSettings&, const CompressorSettings&) = default;
};

void to_json(nlohmann::json& json, const CompressorSettings& settings);
void from_json(const nlohmann::json& json, CompressorSettings& settings);

} // namespace harlune
