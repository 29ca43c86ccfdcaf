#include "dsp/effects/NoiseReductionSettings.h"

#include "dsp/effects/SettingsJSON.h"

namespace harlune {

void to_json(nlohmann::json& json, const NoiseProfile& p) {
    json = nlohmann::json{{"fftSize", p.fftSize}, {"sampleRate", p.sampleRate}, {"binPower", p.binPower}};
}

void from_json(const nlohmann::json& json, NoiseProfile& p) {
    using namespace settingsJSON;
    read(json, "fftSize", p.fftSize);
    read(json, "sampleRate", p.sampleRate);
    read(json, "binPower", p.binPower);
}

void to_json(nlohmann::json& json, const NoiseReductionSettings& s) {
    json = nlohmann::json{{"reductionDB", s.reductionDB},
                          {"sensitivityDB", s.sensitivityDB},
                          {"smoothing", s.smoothing},
                          {"outputNoiseOnly", s.outputNoiseOnly}};
    if (s.profile)
        json["profile"] = *s.profile;
}

void from_json(const nlohmann::json& json, NoiseReductionSettings& s) {
    using namespace settingsJSON;
    if (const auto it = json.find("profile"); it != json.end() && !it->is_null())
        s.profile = it->get<NoiseProfile>();
    else
        s.profile.reset();
    read(json, "reductionDB", s.reductionDB);
    read(json, "sensitivityDB", s.sensitivityDB);
    read(json, "smoothing", s.smoothing);
    read(json, "outputNoiseOnly", s.outputNoiseOnly);
}

} // namespace harlune
