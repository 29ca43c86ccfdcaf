#include "EffectArguments.h"

#include "dsp/effects/EffectFactory.h"
#include "dsp/effects/EffectParameters.h"
#include "dsp/effects/PartialSettings.h"
#include "dsp/plugins/PluginEffect.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace harlune::cli {

namespace {

constexpr std::string_view pluginPrefix = "lv2:";

std::string kindList() {
    std::string list;
    for (const EffectKind kind : allEffectKinds())
        list += std::string(rawValue(kind)) + ", ";
    return list + "or lv2:URI";
}

nlohmann::json parseSettingsText(const std::string& text, const std::string& where) {
    std::string json = text;
    if (text.starts_with('@')) {
        const std::string path = text.substr(1);
        std::ifstream file(path);
        std::ostringstream contents;
        if (file)
            contents << file.rdbuf();
        if (!file)
            throw UsageError{where + ": can\u2019t read \u2018" + path + "\u2019"};
        json = contents.str();
    }
    try {
        return nlohmann::json::parse(json);
    } catch (const nlohmann::json::exception& error) {
        throw UsageError{where + ": not valid JSON (" + error.what() + ")"};
    }
}

EffectSlot pluginSlot(const std::string& uri, const std::optional<std::string>& settings,
                      const std::string& where) {
    if (uri.empty())
        throw UsageError{where + ": lv2: needs the plug-in\u2019s URI"};
    const auto installed = PluginEffect::installedPlugins();
    const auto found = std::find_if(installed.begin(), installed.end(),
                                    [&](const PluginDescriptor& plugin) { return plugin.id == uri; });
    if (found == installed.end())
        throw UsageError{where + ": no LV2 plug-in \u2018" + uri +
                         "\u2019 is installed (harlune-cli effects --plugins lists them)"};
    EffectSlot::Plugin plugin{*found, std::nullopt};
    if (settings) {
        const nlohmann::json controls = parseSettingsText(*settings, where);
        if (!controls.is_object())
            throw UsageError{where + ": the control values must be an object {\"symbol\": number, ...}"};
        const auto instance = PluginEffect::instantiate(plugin.descriptor);
        const auto parameters = instance->parameters();
        std::vector<std::string> problems;
        for (const auto& [symbol, value] : controls.items()) {
            const auto parameter = std::find_if(parameters.begin(), parameters.end(),
                                                [&](const PluginParameter& p) { return p.symbol == symbol; });
            if (parameter == parameters.end()) {
                std::string symbols;
                for (const auto& p : parameters)
                    symbols += (symbols.empty() ? "" : ", ") + p.symbol;
                problems.push_back("unknown control \u201c" + symbol + "\u201d (its controls: " + symbols +
                                   ")");
            } else if (!value.is_number()) {
                problems.push_back(symbol + " must be a number, not " + std::string(value.type_name()));
            } else if (const double v = value.get<double>();
                       v < parameter->minimum || v > parameter->maximum) {
                problems.push_back(symbol + " " + formatParameterNumber(v) + " lies outside " +
                                   formatParameterNumber(parameter->minimum) + " to " +
                                   formatParameterNumber(parameter->maximum));
            }
        }
        if (!problems.empty()) {
            std::string text;
            for (const auto& problem : problems)
                text += (text.empty() ? "" : "; ") + problem;
            throw UsageError{where + ": " + text};
        }
        plugin.state = controls.dump();
    }
    return EffectSlot{.source = std::move(plugin)};
}

} // namespace

EffectSlot parseEffectArgument(const std::string& text) {
    if (text.starts_with(pluginPrefix)) {
        const size_t equals = text.find('=');
        const std::string uri =
            text.substr(pluginPrefix.size(),
                        equals == std::string::npos ? std::string::npos : equals - pluginPrefix.size());
        return pluginSlot(uri,
                          equals == std::string::npos ? std::nullopt : std::optional(text.substr(equals + 1)),
                          "--effect " + text.substr(0, equals));
    }
    const size_t split = text.find_first_of("=@");
    const std::string name = text.substr(0, split);
    const auto kind = effectKindFromRawValue(name);
    if (!kind)
        throw UsageError{"--effect: unknown effect \u2018" + name + "\u2019 (" + kindList() + ")"};
    const std::string where = "--effect " + name;
    if (split == std::string::npos)
        return EffectSlot{.source = defaultSettings(*kind)};
    // KIND@FILE and KIND=@FILE both read the file.
    const std::string value = text[split] == '@' ? text.substr(split) : text.substr(split + 1);
    nlohmann::json json = parseSettingsText(value, where);
    // A profile as `noise-profile` writes it stands for noise reduction with that profile.
    if (*kind == EffectKind::noiseReduction && json.is_object() && json.contains("binPower"))
        json = nlohmann::json{{"profile", std::move(json)}};
    const auto reading = readSettingsOverDefaults(*kind, json);
    if (!reading.issues.empty()) {
        std::string problems;
        for (const auto& issue : reading.issues)
            problems += (problems.empty() ? "" : "; ") + issue.message;
        throw UsageError{where + ": " + problems};
    }
    return EffectSlot{.source = reading.settings};
}

TailChoice parseTailChoice(const std::string& text) {
    if (text == "mix")
        return TailChoice::mix;
    if (text == "keep")
        return TailChoice::keep;
    if (text == "cut")
        return TailChoice::cut;
    throw UsageError{"--tail takes keep, cut or mix, not \u2018" + text + "\u2019"};
}

TailChoice tailChoice(EffectTailMode mode) {
    return mode == EffectTailMode::truncate ? TailChoice::cut : TailChoice::mix;
}

std::vector<std::shared_ptr<EffectProcessor>> makeOfflineChain(std::span<const EffectSlot> slots) {
    std::vector<std::shared_ptr<EffectProcessor>> chain;
    for (const auto& slot : slots) {
        if (!slot.isEnabled)
            continue;
        if (const auto* settings = std::get_if<EffectSettings>(&slot.source)) {
            chain.push_back(EffectFactory::makeProcessor(*settings));
            continue;
        }
        const auto& plugin = std::get<EffectSlot::Plugin>(slot.source);
        auto instance = PluginEffect::instantiate(plugin.descriptor);
        if (plugin.state)
            instance->restoreState(*plugin.state);
        instance->rendersOffline = true;
        chain.push_back(std::move(instance));
    }
    return chain;
}

} // namespace harlune::cli
