#include "dsp/effects/PartialSettings.h"

#include "dsp/effects/EffectParameters.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace harlune {

namespace {

using Kind = SettingsIssue::Kind;

std::string typeName(const nlohmann::json& value) {
    return value.type_name();
}

std::string keyList(std::span<const EffectParameter> parameters, std::string_view extra = {}) {
    std::string list;
    for (const auto& parameter : parameters)
        list += (list.empty() ? "" : ", ") + std::string(parameter.key);
    if (!extra.empty())
        list += ", " + std::string(extra);
    return list;
}

std::string choiceList(const EffectParameter& parameter) {
    std::string list;
    for (const auto& choice : parameter.choices)
        list += (list.empty() ? "" : ", ") + std::string(choice);
    return list;
}

/// Writes `value` for `parameter` into `target` when it fits, else reports why and leaves the
/// default there (or clamps a number).
void readValue(const EffectParameter& parameter, const nlohmann::json& value, nlohmann::json& target,
               const std::string& path, std::vector<SettingsIssue>& issues) {
    nlohmann::json& slot = target[std::string(parameter.key)];
    const std::string keep = "kept the default " + slot.dump();
    switch (parameter.scale) {
    case ParameterScale::toggle:
        if (!value.is_boolean()) {
            issues.push_back(
                {Kind::wrongType, path, path + " must be true or false, not " + typeName(value), keep});
            return;
        }
        slot = value;
        return;
    case ParameterScale::choice:
        if (!value.is_string() || std::find(parameter.choices.begin(), parameter.choices.end(),
                                            value.get<std::string>()) == parameter.choices.end()) {
            issues.push_back({Kind::wrongType, path,
                              path + " must be one of " + choiceList(parameter) + ", not " + value.dump(),
                              keep});
            return;
        }
        slot = value;
        return;
    case ParameterScale::linear:
    case ParameterScale::logarithmic:
        break;
    }
    if (!value.is_number()) {
        issues.push_back({Kind::wrongType, path, path + " must be a number, not " + typeName(value), keep});
        return;
    }
    double number = value.get<double>();
    if (parameter.isInteger && number != std::trunc(number)) {
        issues.push_back(
            {Kind::wrongType, path, path + " must be a whole number, not " + value.dump(), keep});
        return;
    }
    const double ceiling = parameter.maximumAt(std::nullopt);
    if (number < parameter.minimum || number > ceiling) {
        const double clamped = std::clamp(number, parameter.minimum, ceiling);
        issues.push_back({Kind::outOfRange, path, outOfRangeText(parameter, path, number, ceiling),
                          "clamped to " + formatParameterNumber(clamped)});
        number = clamped;
    }
    if (parameter.isInteger)
        slot = static_cast<int64_t>(number);
    else
        slot = number;
}

nlohmann::json readBand(const nlohmann::json& given, nlohmann::json band, const std::string& prefix,
                        std::vector<SettingsIssue>& issues) {
    if (!given.is_object()) {
        issues.push_back({Kind::wrongType, prefix, prefix + " must be an object, not " + typeName(given),
                          "kept the default band"});
        return band;
    }
    band["id"] = Uuid::random();
    for (const auto& [key, value] : given.items()) {
        const std::string path = prefix + "." + key;
        if (key == "id") {
            if (value.is_string() && Uuid::fromString(value.get<std::string>()))
                band["id"] = value;
            else
                issues.push_back({Kind::wrongType, path, path + " must be a UUID string, not " + value.dump(),
                                  "gave the band a new id"});
        } else if (const auto* parameter = findParameter(eqBandParameters(), key)) {
            readValue(*parameter, value, band, path, issues);
        } else {
            issues.push_back({Kind::unknownKey, path,
                              "unknown key \u201c" + key + "\u201d in " + prefix +
                                  " (its keys: " + keyList(eqBandParameters(), "id") + ")",
                              "skipped"});
        }
    }
    return band;
}

void readBands(const nlohmann::json& given, nlohmann::json& record, std::vector<SettingsIssue>& issues) {
    if (!given.is_array()) {
        issues.push_back({Kind::wrongType, "bands", "bands must be a list of bands, not " + typeName(given),
                          "kept the default bands"});
        return;
    }
    const std::vector<EQBand> defaults = EQSettings::defaultBands();
    nlohmann::json bands = nlohmann::json::array();
    const auto limit = static_cast<size_t>(EQSettings::maxBands);
    if (given.size() > limit)
        issues.push_back({Kind::outOfRange, "bands",
                          "bands holds " + std::to_string(given.size()) + " bands, at most " +
                              std::to_string(limit) + " are used",
                          "dropped the bands after the " + std::to_string(limit) + "th"});
    for (size_t b = 0; b < std::min(given.size(), limit); ++b) {
        const nlohmann::json base =
            b < defaults.size() ? nlohmann::json(defaults[b]) : nlohmann::json(EQBand{});
        bands.push_back(readBand(given[b], base, "bands[" + std::to_string(b) + "]", issues));
    }
    record["bands"] = std::move(bands);
}

EffectSettings decode(EffectKind kind, const nlohmann::json& record, std::vector<SettingsIssue>& issues) {
    try {
        return effectSettingsFromJSON(nlohmann::json{{std::string(rawValue(kind)), {{"_0", record}}}});
    } catch (const nlohmann::json::exception& error) {
        // Every value was checked on the way in; only a malformed profile can get here.
        issues.push_back({Kind::wrongType, "", error.what(), "used the defaults"});
        return defaultSettings(kind);
    }
}

} // namespace

std::string_view describe(SettingsIssue::Kind kind) {
    switch (kind) {
    case Kind::unknownKey:
        return "unknown key";
    case Kind::wrongType:
        return "wrong type";
    case Kind::outOfRange:
        return "out of range";
    }
    return "";
}

SettingsReading readSettingsOverDefaults(EffectKind kind, const nlohmann::json& record) {
    std::vector<SettingsIssue> issues;
    nlohmann::json merged;
    std::visit([&](const auto& s) { merged = s; }, defaultSettings(kind).value());
    if (!record.is_object()) {
        issues.push_back(
            {Kind::wrongType, "",
             std::string(rawValue(kind)) + " settings must be an object, not " + typeName(record),
             "used the defaults"});
        return {defaultSettings(kind), std::move(issues)};
    }
    const auto parameters = effectParameters(kind);
    const std::string_view extra = kind == EffectKind::eq               ? "bands"
                                   : kind == EffectKind::noiseReduction ? "profile"
                                                                        : "";
    for (const auto& [key, value] : record.items()) {
        if (kind == EffectKind::eq && key == "bands") {
            readBands(value, merged, issues);
        } else if (kind == EffectKind::noiseReduction && key == "profile") {
            if (value.is_null() || value.is_object())
                merged["profile"] = value;
            else
                issues.push_back({Kind::wrongType, key, "profile must be an object, not " + typeName(value),
                                  "went without a profile"});
        } else if (const auto* parameter = findParameter(parameters, key)) {
            readValue(*parameter, value, merged, key, issues);
        } else {
            issues.push_back({Kind::unknownKey, key,
                              "unknown key \u201c" + key + "\u201d for " + std::string(rawValue(kind)) +
                                  " (its keys: " + keyList(parameters, extra) + ")",
                              "skipped"});
        }
    }
    EffectSettings settings = decode(kind, merged, issues);
    return {std::move(settings), std::move(issues)};
}

std::optional<SettingsReading> readTaggedSettings(const nlohmann::json& json, std::string& error) {
    if (!json.is_object() || json.size() != 1) {
        error = "Invalid number of keys found, expected one.";
        return std::nullopt;
    }
    const auto entry = json.begin();
    const auto kind = effectKindFromRawValue(entry.key());
    if (!kind) {
        error = "unknown effect \u201c" + entry.key() + "\u201d";
        return std::nullopt;
    }
    if (!entry.value().is_object() || !entry.value().contains("_0")) {
        error = entry.key() + ": missing \u201c_0\u201d";
        return std::nullopt;
    }
    return readSettingsOverDefaults(*kind, entry.value().at("_0"));
}

} // namespace harlune
