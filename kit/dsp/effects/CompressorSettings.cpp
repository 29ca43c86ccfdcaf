#include "dsp/effects/CompressorSettings.h"

#include "dsp/effects/CompressorCurve.h"
#include "dsp/effects/SettingsJSON.h"

namespace harlune {

std::string_view rawValue(DetectionMode mode) {
    return mode == DetectionMode::peak ? "peak" : "rms";
}

std::optional<DetectionMode> detectionModeFromRawValue(std::string_view raw) {
    if (raw == "peak")
        return DetectionMode::peak;
    if (raw == "rms")
        return DetectionMode::rms;
    return std::nullopt;
}

std::string_view displayName(DetectionMode mode) {
    return mode == DetectionMode::peak ? "Peak" : "RMS";
}

double CompressorSettings::staticOutputDB(double inputDB) const {
    return CompressorCurve::of(thresholdDB, ratio, kneeDB).outputDB(inputDB);
}

double CompressorSettings::effectiveMakeupDB() const {
    return makeupGainDB + (autoMakeup ? -0.5 * staticOutputDB(0) : 0.0);
}

void to_json(nlohmann::json& json, const CompressorSettings& s) {
    json = nlohmann::json{{"thresholdDB", s.thresholdDB}, {"ratio", s.ratio},
                          {"kneeDB", s.kneeDB},           {"attackMs", s.attackMs},
                          {"releaseMs", s.releaseMs},     {"makeupGainDB", s.makeupGainDB},
                          {"autoMakeup", s.autoMakeup},   {"detection", std::string(rawValue(s.detection))},
                          {"stereoLink", s.stereoLink},   {"mix", s.mix}};
}

void from_json(const nlohmann::json& json, CompressorSettings& s) {
    using namespace settingsJSON;
    read(json, "thresholdDB", s.thresholdDB);
    read(json, "ratio", s.ratio);
    read(json, "kneeDB", s.kneeDB);
    read(json, "attackMs", s.attackMs);
    read(json, "releaseMs", s.releaseMs);
    read(json, "makeupGainDB", s.makeupGainDB);
    read(json, "autoMakeup", s.autoMakeup);
    s.detection = enumAt<DetectionMode>(json, "detection", detectionModeFromRawValue);
    read(json, "stereoLink", s.stereoLink);
    read(json, "mix", s.mix);
}

} // namespace harlune
