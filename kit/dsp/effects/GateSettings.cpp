#include "dsp/effects/GateSettings.h"

#include "dsp/effects/SettingsJSON.h"

namespace harlune {

void to_json(nlohmann::json& json, const GateSettings& s) {
    json = nlohmann::json{{"thresholdDB", s.thresholdDB}, {"rangeDB", s.rangeDB},
                          {"attackMs", s.attackMs},       {"holdMs", s.holdMs},
                          {"releaseMs", s.releaseMs},     {"hysteresisDB", s.hysteresisDB},
                          {"stereoLink", s.stereoLink}};
}

void from_json(const nlohmann::json& json, GateSettings& s) {
    using namespace settingsJSON;
    read(json, "thresholdDB", s.thresholdDB);
    read(json, "rangeDB", s.rangeDB);
    read(json, "attackMs", s.attackMs);
    read(json, "holdMs", s.holdMs);
    read(json, "releaseMs", s.releaseMs);
    read(json, "hysteresisDB", s.hysteresisDB);
    read(json, "stereoLink", s.stereoLink);
}

} // namespace harlune
