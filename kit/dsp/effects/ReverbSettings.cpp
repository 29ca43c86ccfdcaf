#include "dsp/effects/ReverbSettings.h"

#include "dsp/effects/SettingsJSON.h"

namespace harlune {

void to_json(nlohmann::json& json, const ReverbSettings& s) {
    json = nlohmann::json{{"preDelayMs", s.preDelayMs},
                          {"decaySeconds", s.decaySeconds},
                          {"size", s.size},
                          {"damping", s.damping},
                          {"diffusion", s.diffusion},
                          {"width", s.width},
                          {"lowCutHz", s.lowCutHz},
                          {"mix", s.mix}};
}

void from_json(const nlohmann::json& json, ReverbSettings& s) {
    using namespace settingsJSON;
    read(json, "preDelayMs", s.preDelayMs);
    read(json, "decaySeconds", s.decaySeconds);
    read(json, "size", s.size);
    read(json, "damping", s.damping);
    read(json, "diffusion", s.diffusion);
    read(json, "width", s.width);
    read(json, "lowCutHz", s.lowCutHz);
    read(json, "mix", s.mix);
}

} // namespace harlune
