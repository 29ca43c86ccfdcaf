#pragma once

#include <nlohmann/json_fwd.hpp>

namespace harlune {

struct DelaySettings {
    /// Time of the even lines, milliseconds.
    double timeMs = 375;
    /// Time of the odd lines, as a multiple of `timeMs`.
    double rightTimeRatio = 1.0;
    double feedback = 0.35;
    double mix = 0.3;
    bool pingPong = false;
    double lowCutHz = 80;
    double highCutHz = 8000;

    friend bool operator==(const DelaySettings&, const DelaySettings&) = default;
};

void to_json(nlohmann::json& json, const DelaySettings& settings);
void from_json(const nlohmann::json& json, DelaySettings& settings);

} // namespace harlune
