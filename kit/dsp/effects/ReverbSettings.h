#pragma once

#include <nlohmann/json_fwd.hpp>

namespace harlune {

struct ReverbSettings {
    double preDelayMs = 20;
    /// RT60 at low frequencies.
    double decaySeconds = 1.8;
    /// Sets the line lengths, 0...1.
    double size = 0.6;
    /// High-frequency decay, 0...1.
    double damping = 0.5;
    double diffusion = 0.8;
    double width = 1.0;
    double lowCutHz = 100;
    double mix = 0.25;

    friend bool operator==(const ReverbSettings&, const ReverbSettings&) = default;
};

void to_json(nlohmann::json& json, const ReverbSettings& settings);
void from_json(const nlohmann::json& json, ReverbSettings& settings);

} // namespace harlune
