#include "dsp/effects/DelaySettings.h"

#include "dsp/effects/SettingsJSON.h"

namespace harlune {

void to_json(nlohmann::json& json, const DelaySettings& s) {
    json = nlohmann::json{{"timeMs", s.timeMs},      {"rightTimeRatio", s.rightTimeRatio},
                          {"feedback", s.feedback},  {"mix", s.mix},
                          {"pingPong", s.pingPong},  {"lowCutHz", s.lowCutHz},
                          {"highCutHz", s.highCutHz}};
}

void from_json(const nlohmann::json& json, DelaySettings& s) {
    using namespace settingsJSON;
    read(json, "timeMs", s.timeMs);
    read(json, "rightTimeRatio", s.rightTimeRatio);
    read(json, "feedback", s.feedback);
    read(json, "mix", s.mix);
    read(json, "pingPong", s.pingPong);
    read(json, "lowCutHz", s.lowCutHz);
    read(json, "highCutHz", s.highCutHz);
}

} // namespace harlune
