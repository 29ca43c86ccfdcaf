#include "dsp/effects/EffectParameters.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>

namespace harlune {

namespace {

constexpr double inf = std::numeric_limits<double>::infinity();
using Scale = ParameterScale;

constexpr std::array<std::string_view, 2> detectionModes{"peak", "rms"};
constexpr std::array<std::string_view, 4> saturationModes{"Soft Clip", "Tube", "Hard Clip", "Bit Crusher"};
constexpr std::array<std::string_view, 2> modulationModes{"chorus", "flanger"};
constexpr std::array<std::string_view, 6> bandTypes{"lowCut", "lowShelf",  "peak",
                                                    "notch",  "highShelf", "highCut"};

// A number with its clamp range also as the editor's range.
constexpr EffectParameter number(std::string_view key, std::string_view name, std::string_view unit,
                                 Scale scale, double lo, double hi, double fallback) {
    return {key, name, unit, scale, lo, hi, 0, lo, hi, fallback};
}
// A number the processor leaves open on a side: the editor shows [editorLo, editorHi].
constexpr EffectParameter open(std::string_view key, std::string_view name, std::string_view unit,
                               Scale scale, double lo, double hi, double editorLo, double editorHi,
                               double fallback) {
    return {key, name, unit, scale, lo, hi, 0, editorLo, editorHi, fallback};
}
constexpr EffectParameter toggle(std::string_view key, std::string_view name, bool fallback) {
    return {key, name, "", Scale::toggle, 0, 1, 0, 0, 1, fallback ? 1.0 : 0.0};
}
constexpr EffectParameter choice(std::string_view key, std::string_view name,
                                 std::span<const std::string_view> choices, int fallback) {
    return {key,
            name,
            "",
            Scale::choice,
            0,
            static_cast<double>(choices.size() - 1),
            0,
            0,
            static_cast<double>(choices.size() - 1),
            static_cast<double>(fallback),
            choices,
            true};
}
constexpr EffectParameter integer(EffectParameter parameter) {
    parameter.isInteger = true;
    return parameter;
}
constexpr EffectParameter rateBound(EffectParameter parameter, double fraction) {
    parameter.maximumRateFraction = fraction;
    parameter.maximum = fraction * 48000;
    parameter.editorMaximum = std::min(parameter.editorMaximum, parameter.maximum);
    return parameter;
}

const std::array eq{
    number("outputGainDB", "Output", "dB", Scale::linear, -48, 48, 0),
};

const std::array eqBand{
    toggle("isEnabled", "On", true),
    choice("type", "Type", bandTypes, 2),
    rateBound(open("frequency", "Frequency", "Hz", Scale::logarithmic, 5, inf, 20, 20000, 1000), 0.49),
    number("gainDB", "Gain", "dB", Scale::linear, -48, 48, 0),
    open("q", "Q", "", Scale::logarithmic, 0.025, 40, 0.1, 18, 1),
    integer(number("slopeDBPerOctave", "Slope", "dB/oct", Scale::linear, 12, 48, 24)),
};

// The compressor and the gate bound only one side of most times and levels.
const std::array compressor{
    open("thresholdDB", "Threshold", "dB", Scale::linear, -inf, inf, -60, 0, -18),
    open("ratio", "Ratio", ":1", Scale::logarithmic, 1, inf, 1, 20, 4),
    open("kneeDB", "Knee", "dB", Scale::linear, 0, inf, 0, 24, 6),
    open("attackMs", "Attack", "ms", Scale::logarithmic, 0, inf, 0.1, 200, 10),
    open("releaseMs", "Release", "ms", Scale::logarithmic, 0, inf, 5, 2000, 120),
    open("makeupGainDB", "Makeup", "dB", Scale::linear, -inf, inf, -12, 24, 0),
    toggle("autoMakeup", "Auto Makeup", false),
    choice("detection", "Detection", detectionModes, 0),
    toggle("stereoLink", "Stereo Link", true),
    number("mix", "Mix", "", Scale::linear, 0, 1, 1),
};

const std::array gate{
    open("thresholdDB", "Threshold", "dB", Scale::linear, -inf, inf, -90, 0, -45),
    open("rangeDB", "Range", "dB", Scale::linear, -inf, 0, -90, 0, -60),
    open("attackMs", "Attack", "ms", Scale::logarithmic, 0, inf, 0.1, 100, 1),
    open("holdMs", "Hold", "ms", Scale::linear, 0, inf, 0, 1000, 50),
    open("releaseMs", "Release", "ms", Scale::logarithmic, 0, inf, 5, 2000, 150),
    open("hysteresisDB", "Hysteresis", "dB", Scale::linear, 0, inf, 0, 12, 3),
    toggle("stereoLink", "Stereo Link", true),
};

const std::array distortion{
    choice("mode", "Mode", saturationModes, 0),
    number("driveDB", "Drive", "dB", Scale::linear, -24, 60, 12),
    rateBound(open("toneHz", "Tone", "Hz", Scale::logarithmic, 20, inf, 20, 20000, 12000), 0.45),
    number("outputDB", "Output", "dB", Scale::linear, -96, 24, -6),
    number("mix", "Mix", "", Scale::linear, 0, 1, 1),
    number("bits", "Bits", "bits", Scale::linear, 1, 24, 8),
    number("downsample", "Downsample", "x", Scale::logarithmic, 1, 256, 1),
};

const std::array delay{
    number("timeMs", "Time", "ms", Scale::logarithmic, 1, 4000, 375),
    number("rightTimeRatio", "Right Time", "x", Scale::logarithmic, 0.25, 4, 1),
    number("feedback", "Feedback", "", Scale::linear, 0, 0.95, 0.35),
    number("mix", "Mix", "", Scale::linear, 0, 1, 0.3),
    toggle("pingPong", "Ping-Pong", false),
    number("lowCutHz", "Low Cut", "Hz", Scale::logarithmic, 20, 2000, 80),
    number("highCutHz", "High Cut", "Hz", Scale::logarithmic, 1000, 20000, 8000),
};

const std::array reverb{
    number("preDelayMs", "Pre-Delay", "ms", Scale::linear, 0, 250, 20),
    number("decaySeconds", "Decay", "s", Scale::logarithmic, 0.2, 20, 1.8),
    number("size", "Size", "", Scale::linear, 0, 1, 0.6),
    number("damping", "Damping", "", Scale::linear, 0, 1, 0.5),
    number("diffusion", "Diffusion", "", Scale::linear, 0, 1, 0.8),
    number("width", "Width", "", Scale::linear, 0, 1, 1),
    number("lowCutHz", "Low Cut", "Hz", Scale::logarithmic, 20, 1000, 100),
    number("mix", "Mix", "", Scale::linear, 0, 1, 0.25),
};

const std::array chorus{
    choice("mode", "Mode", modulationModes, 0),
    number("rateHz", "Rate", "Hz", Scale::logarithmic, 0.05, 10, 0.8),
    number("depth", "Depth", "", Scale::linear, 0, 1, 0.5),
    number("delayMs", "Delay", "ms", Scale::linear, 0.5, 40, 15),
    number("feedback", "Feedback", "", Scale::linear, -0.95, 0.95, 0),
    integer(number("voices", "Voices", "", Scale::linear, 1, 4, 2)),
    number("stereoSpread", "Spread", "", Scale::linear, 0, 1, 0.5),
    number("mix", "Mix", "", Scale::linear, 0, 1, 0.5),
};

// The learnt profile is data, not a control; it is kept by the readers but not described.
const std::array noiseReduction{
    number("reductionDB", "Reduction", "dB", Scale::linear, 0, 48, 18),
    number("sensitivityDB", "Sensitivity", "dB", Scale::linear, -12, 12, 0),
    number("smoothing", "Smoothing", "", Scale::linear, 0, 1, 0.5),
    toggle("outputNoiseOnly", "Noise Only", false),
};

void check(const EffectParameter& parameter, const nlohmann::json& record, const std::string& path,
           std::optional<double> sampleRate, std::vector<ParameterProblem>& problems) {
    if (parameter.scale == Scale::toggle || parameter.scale == Scale::choice)
        return; // bools and enums cannot hold a value out of range
    const auto found = record.find(parameter.key);
    if (found == record.end() || !found->is_number())
        return;
    const double value = found->get<double>();
    if (!std::isfinite(value)) {
        problems.push_back({path, path + " is not a finite number"});
        return;
    }
    const double ceiling = parameter.maximumAt(sampleRate);
    if (value < parameter.minimum || value > ceiling)
        problems.push_back({path, outOfRangeText(parameter, path, value, ceiling)});
}

} // namespace

std::string_view rawValue(ParameterScale scale) {
    switch (scale) {
    case ParameterScale::linear:
        return "linear";
    case ParameterScale::logarithmic:
        return "logarithmic";
    case ParameterScale::toggle:
        return "toggle";
    case ParameterScale::choice:
        return "choice";
    }
    return "";
}

double EffectParameter::maximumAt(std::optional<double> sampleRate) const {
    if (maximumRateFraction <= 0)
        return maximum;
    if (!sampleRate)
        return inf;
    return maximumRateFraction * (*sampleRate > 0 ? *sampleRate : 48000);
}

std::span<const EffectParameter> effectParameters(EffectKind kind) {
    switch (kind) {
    case EffectKind::eq:
        return eq;
    case EffectKind::compressor:
        return compressor;
    case EffectKind::gate:
        return gate;
    case EffectKind::distortion:
        return distortion;
    case EffectKind::delay:
        return delay;
    case EffectKind::reverb:
        return reverb;
    case EffectKind::chorus:
        return chorus;
    case EffectKind::noiseReduction:
        return noiseReduction;
    }
    return {};
}

std::span<const EffectParameter> eqBandParameters() {
    return eqBand;
}

const EffectParameter* findParameter(std::span<const EffectParameter> parameters, std::string_view key) {
    for (const auto& parameter : parameters)
        if (parameter.key == key)
            return &parameter;
    return nullptr;
}

std::vector<ParameterProblem> parameterProblems(const EffectSettings& settings,
                                                std::optional<double> sampleRate) {
    nlohmann::json record;
    std::visit([&](const auto& s) { record = s; }, settings.value());
    std::vector<ParameterProblem> problems;
    for (const auto& parameter : effectParameters(settings.kind()))
        check(parameter, record, std::string(parameter.key), sampleRate, problems);
    if (const auto* eqSettings = settings.as<EQSettings>()) {
        const auto& bands = record.at("bands");
        for (size_t b = 0; b < bands.size(); ++b) {
            const std::string prefix = "bands[" + std::to_string(b) + "].";
            for (const auto& parameter : eqBandParameters())
                check(parameter, bands[b], prefix + std::string(parameter.key), sampleRate, problems);
        }
        if (eqSettings->bands.size() > static_cast<size_t>(EQSettings::maxBands))
            problems.push_back({"bands", "bands: " + std::to_string(eqSettings->bands.size()) +
                                             " bands, of which only the first " +
                                             std::to_string(EQSettings::maxBands) + " are used"});
    }
    return problems;
}

std::string outOfRangeText(const EffectParameter& parameter, const std::string& path, double value,
                           double ceiling) {
    // Built by appending: g++ 12 warns falsely (-Wrestrict) on long chains of string + string.
    std::string text = path;
    text += ' ';
    text += formatParameterNumber(value);
    text += " lies outside ";
    if (std::isinf(parameter.minimum)) {
        text += "at most ";
        text += formatParameterNumber(ceiling);
    } else if (std::isinf(ceiling)) {
        text += "at least ";
        text += formatParameterNumber(parameter.minimum);
    } else {
        text += formatParameterNumber(parameter.minimum);
        text += " to ";
        text += formatParameterNumber(ceiling);
    }
    if (!parameter.unit.empty()) {
        text += ' ';
        text += parameter.unit;
    }
    return text;
}

std::string formatParameterNumber(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

} // namespace harlune
