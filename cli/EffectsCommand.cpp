// harlune-cli effects: the built-in effects and their parameters, read from the description
// table that the settings readers use, so that what is listed is what --effect accepts.
#include "CliSupport.h"
#include "Commands.h"
#include "dsp/effects/EffectParameters.h"
#include "dsp/plugins/PluginEffect.h"

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

namespace harlune::cli {

namespace {

constexpr std::string_view usage = "harlune-cli effects [--json] [--plugins]\n"
                                   "  lists the built-in effects with their settings keys (for --effect),\n"
                                   "  or with --plugins the installed LV2 plug-ins and their URIs";

/// A value of the parameter as its settings field holds it: bool, choice string or number.
nlohmann::json fieldValue(const EffectParameter& parameter, double value) {
    switch (parameter.scale) {
    case ParameterScale::toggle:
        return value != 0;
    case ParameterScale::choice:
        return std::string(parameter.choices[static_cast<size_t>(value)]);
    default:
        if (parameter.isInteger)
            return static_cast<int64_t>(value);
        return value;
    }
}

/// Infinite bounds are null: the processor leaves that side open.
nlohmann::json bound(double value) {
    return std::isfinite(value) ? nlohmann::json(value) : nlohmann::json(nullptr);
}

nlohmann::json describe(const EffectParameter& parameter) {
    nlohmann::json json{{"key", parameter.key},
                        {"displayName", parameter.displayName},
                        {"unit", parameter.unit},
                        {"scale", rawValue(parameter.scale)},
                        {"default", fieldValue(parameter, parameter.defaultValue)}};
    if (parameter.scale == ParameterScale::choice) {
        json["choices"] = std::vector<std::string>(parameter.choices.begin(), parameter.choices.end());
    } else if (parameter.scale != ParameterScale::toggle) {
        json["minimum"] = bound(parameter.minimum);
        json["maximum"] = bound(parameter.maximumRateFraction > 0 ? INFINITY : parameter.maximum);
        if (parameter.maximumRateFraction > 0)
            json["maximumRateFraction"] = parameter.maximumRateFraction;
        json["editorMinimum"] = parameter.editorMinimum;
        json["editorMaximum"] = parameter.editorMaximum;
        json["isInteger"] = parameter.isInteger;
    }
    return json;
}

std::string rangeText(const EffectParameter& parameter) {
    switch (parameter.scale) {
    case ParameterScale::toggle:
        return "true or false";
    case ParameterScale::choice: {
        std::string text;
        for (const auto& choice : parameter.choices)
            text += (text.empty() ? "" : ", ") + std::string(choice);
        return text;
    }
    default:
        break;
    }
    const std::string unit = parameter.unit.empty() ? "" : " " + std::string(parameter.unit);
    const std::string high = parameter.maximumRateFraction > 0
                                 ? formatParameterNumber(parameter.maximumRateFraction) + " x rate"
                                 : formatParameterNumber(parameter.maximum);
    std::string text;
    if (std::isinf(parameter.minimum) && std::isinf(parameter.maximum))
        text = "any";
    else if (std::isinf(parameter.minimum))
        text = "up to " + high;
    else if (std::isinf(parameter.maximum) && parameter.maximumRateFraction <= 0)
        text = formatParameterNumber(parameter.minimum) + " and up";
    else
        text = formatParameterNumber(parameter.minimum) + " to " + high;
    return text + unit + (parameter.isInteger ? ", whole" : "") +
           (parameter.scale == ParameterScale::logarithmic ? ", log" : "");
}

std::string defaultText(const EffectParameter& parameter) {
    const nlohmann::json value = fieldValue(parameter, parameter.defaultValue);
    return value.is_number() ? formatParameterNumber(parameter.defaultValue) : value.dump();
}

void printTable(std::span<const EffectParameter> parameters, const char* indent) {
    for (const auto& parameter : parameters)
        std::printf("%s%-18.*s %-12.*s default %-10s %s\n", indent, static_cast<int>(parameter.key.size()),
                    parameter.key.data(), static_cast<int>(parameter.displayName.size()),
                    parameter.displayName.data(), defaultText(parameter).c_str(),
                    rangeText(parameter).c_str());
}

/// The text form is `listPlugins` (a name and a URI per line); this is the same as JSON.
int listPluginsAsJSON() {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& plugin : PluginEffect::installedPlugins())
        list.push_back({{"uri", plugin.id}, {"name", plugin.name}});
    std::printf("%s\n", list.dump(2).c_str());
    return exitSuccess;
}

int runEffects(std::span<const std::string> arguments) {
    bool json = false;
    bool plugins = false;
    ArgumentReader reader(arguments);
    while (reader.next()) {
        const std::string& argument = reader.current();
        if (argument == "--json")
            json = true;
        else if (argument == "--plugins")
            plugins = true;
        else if (reader.isOption())
            throw reader.unknownOption();
        else
            throw UsageError{"effects takes no file"};
    }
    if (plugins)
        return json ? listPluginsAsJSON() : listPlugins();
    if (json) {
        nlohmann::json kinds = nlohmann::json::array();
        for (const EffectKind kind : allEffectKinds()) {
            nlohmann::json entry{{"kind", rawValue(kind)},
                                 {"displayName", displayName(kind)},
                                 {"category", rawValue(category(kind))},
                                 {"parameters", nlohmann::json::array()}};
            for (const auto& parameter : effectParameters(kind))
                entry["parameters"].push_back(describe(parameter));
            if (kind == EffectKind::eq) {
                entry["maxBands"] = EQSettings::maxBands;
                entry["bandParameters"] = nlohmann::json::array();
                for (const auto& parameter : eqBandParameters())
                    entry["bandParameters"].push_back(describe(parameter));
            }
            kinds.push_back(std::move(entry));
        }
        std::printf("%s\n", kinds.dump(2).c_str());
        return exitSuccess;
    }
    for (const EffectKind kind : allEffectKinds()) {
        std::printf("%.*s  (%.*s, %.*s)\n", static_cast<int>(rawValue(kind).size()), rawValue(kind).data(),
                    static_cast<int>(displayName(kind).size()), displayName(kind).data(),
                    static_cast<int>(rawValue(category(kind)).size()), rawValue(category(kind)).data());
        printTable(effectParameters(kind), "  ");
        if (kind == EffectKind::eq) {
            std::printf("  bands              up to %d, each (missing keys from the default band there):\n",
                        EQSettings::maxBands);
            printTable(eqBandParameters(), "    ");
        }
    }
    std::printf(
        "\nexample: harlune-cli process --effect 'delay={\"timeMs\": 250, \"feedback\": 0.5}' IN OUT\n");
    return exitSuccess;
}

} // namespace

Command effectsCommand() {
    return {"effects", "list the built-in effects and their settings, or the LV2 plug-ins", usage,
            runEffects};
}

} // namespace harlune::cli
