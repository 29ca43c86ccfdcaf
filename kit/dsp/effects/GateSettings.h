#pragma once

#include <nlohmann/json_fwd.hpp>

namespace harlune {

struct GateSettings {
    /// Opening level, dB.
    double thresholdDB = -45;
    /// Gain when fully closed, dB.
    double rangeDB = -60;
    double attackMs = 1;
    double holdMs = 50;
    double releaseMs = 150;
    /// How far under the threshold the closing level lies, dB.
    double hysteresisDB = 3;
    /// One detector for all channels.
    bool stereoLink = true;

    friend bool operator==(const GateSettings&, const GateSettings&) = default;
};

void to_json(nlohmann::json& json, const GateSettings& settings);
void from_json(const nlohmann::json& json, GateSettings& settings);

} // namespace harlune
