#include "ui/inspector/EffectParameterValues.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace harlune {

namespace {

double numberOf(const nlohmann::json& value, const EffectParameter& parameter) {
    switch (parameter.scale) {
    case ParameterScale::toggle:
        return value.is_boolean() && value.get<bool>() ? 1.0 : 0.0;
    case ParameterScale::choice: {
        if (!value.is_string())
            return parameter.defaultValue;
        const auto found =
            std::find(parameter.choices.begin(), parameter.choices.end(), value.get<std::string>());
        return found == parameter.choices.end() ? parameter.defaultValue
                                                : static_cast<double>(found - parameter.choices.begin());
    }
    case ParameterScale::linear:
    case ParameterScale::logarithmic:
        break;
    }
    return value.is_number() ? value.get<double>() : parameter.defaultValue;
}

nlohmann::json jsonOf(double value, const EffectParameter& parameter) {
    switch (parameter.scale) {
    case ParameterScale::toggle:
        return value >= 0.5;
    case ParameterScale::choice: {
        const auto last = static_cast<long>(parameter.choices.size()) - 1;
        const long index = std::clamp(std::lround(value), 0L, last);
        return std::string(parameter.choices[static_cast<size_t>(index)]);
    }
    case ParameterScale::linear:
    case ParameterScale::logarithmic:
        break;
    }
    if (parameter.isInteger)
        return std::lround(value);
    return value;
}

/// The record inside the tagged form {"<kind>": {"_0": {record}}}.
nlohmann::json& recordOf(nlohmann::json& tagged) {
    return tagged.begin().value()["_0"];
}

} // namespace

double parameterValue(const EffectSettings& settings, const EffectParameter& parameter) {
    nlohmann::json tagged = settings;
    const nlohmann::json& record = recordOf(tagged);
    const auto found = record.find(parameter.key);
    return found == record.end() ? parameter.defaultValue : numberOf(*found, parameter);
}

EffectSettings withParameter(const EffectSettings& settings, const EffectParameter& parameter, double value) {
    nlohmann::json tagged = settings;
    recordOf(tagged)[std::string(parameter.key)] = jsonOf(value, parameter);
    return effectSettingsFromJSON(tagged);
}

double bandParameterValue(const EQBand& band, const EffectParameter& parameter) {
    const nlohmann::json record = band;
    const auto found = record.find(parameter.key);
    return found == record.end() ? parameter.defaultValue : numberOf(*found, parameter);
}

EQBand withBandParameter(const EQBand& band, const EffectParameter& parameter, double value) {
    nlohmann::json record = band;
    record[std::string(parameter.key)] = jsonOf(value, parameter);
    return record.get<EQBand>();
}

double pluginValue(const std::optional<std::string>& state, const PluginParameter& parameter) {
    if (!state)
        return parameter.defaultValue;
    const nlohmann::json values = nlohmann::json::parse(*state, nullptr, false);
    if (!values.is_object())
        return parameter.defaultValue;
    const auto found = values.find(parameter.symbol);
    return found != values.end() && found->is_number() ? found->get<double>() : parameter.defaultValue;
}

std::string withPluginValue(const std::optional<std::string>& state,
                            std::span<const PluginParameter> parameters, const std::string& symbol,
                            double value) {
    nlohmann::json values = state ? nlohmann::json::parse(*state, nullptr, false) : nlohmann::json::object();
    if (!values.is_object())
        values = nlohmann::json::object();
    for (const PluginParameter& parameter : parameters)
        if (!values.contains(parameter.symbol))
            values[parameter.symbol] = parameter.defaultValue;
    values[symbol] = value;
    return values.dump();
}

} // namespace harlune
