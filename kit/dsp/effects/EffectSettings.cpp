#include "dsp/effects/EffectSettings.h"

#include "dsp/effects/SettingsJSON.h"

#include <array>

namespace harlune {

namespace {

struct KindRow {
    EffectKind kind;
    std::string_view raw;
    std::string_view displayName;
    EffectCategory category;
    std::string_view symbol;
};

constexpr std::array<KindRow, 8> kinds{{
    {EffectKind::eq, "eq", "Parametric EQ", EffectCategory::tone, "slider.vertical.3"},
    {EffectKind::compressor, "compressor", "Compressor", EffectCategory::dynamics,
     "arrow.down.right.and.arrow.up.left"},
    {EffectKind::gate, "gate", "Noise Gate", EffectCategory::dynamics, "door.left.hand.closed"},
    {EffectKind::distortion, "distortion", "Saturation", EffectCategory::tone, "flame"},
    {EffectKind::delay, "delay", "Delay", EffectCategory::space, "repeat"},
    {EffectKind::reverb, "reverb", "Reverb", EffectCategory::space, "building.columns"},
    {EffectKind::chorus, "chorus", "Chorus / Flanger", EffectCategory::space, "water.waves"},
    {EffectKind::noiseReduction, "noiseReduction", "Noise Reduction", EffectCategory::restoration,
     "waveform.badge.minus"},
}};

constexpr std::array<EffectKind, 8> allKinds{
    EffectKind::eq,    EffectKind::compressor, EffectKind::gate,   EffectKind::distortion,
    EffectKind::delay, EffectKind::reverb,     EffectKind::chorus, EffectKind::noiseReduction};

const KindRow& row(EffectKind kind) {
    return kinds[static_cast<size_t>(kind)];
}

template <size_t Index = 0>
EffectSettings::Value decodeAlternative(size_t index, const nlohmann::json& record) {
    if constexpr (Index < std::variant_size_v<EffectSettings::Value>) {
        if (index == Index)
            return record.get<std::variant_alternative_t<Index, EffectSettings::Value>>();
        return decodeAlternative<Index + 1>(index, record);
    } else {
        settingsJSON::fail("unknown effect", record);
    }
}

} // namespace

std::span<const EffectKind> allEffectKinds() {
    return allKinds;
}
std::string_view rawValue(EffectKind kind) {
    return row(kind).raw;
}
std::string_view displayName(EffectKind kind) {
    return row(kind).displayName;
}
EffectCategory category(EffectKind kind) {
    return row(kind).category;
}
std::string_view symbol(EffectKind kind) {
    return row(kind).symbol;
}

std::optional<EffectKind> effectKindFromRawValue(std::string_view raw) {
    for (const auto& r : kinds)
        if (r.raw == raw)
            return r.kind;
    return std::nullopt;
}

std::string_view rawValue(EffectCategory category) {
    switch (category) {
    case EffectCategory::tone:
        return "Tone";
    case EffectCategory::dynamics:
        return "Dynamics";
    case EffectCategory::space:
        return "Time & Space";
    case EffectCategory::restoration:
        return "Restoration";
    }
    return "";
}

EffectSettings EffectSettings::defaultSettings(EffectKind kind) {
    switch (kind) {
    case EffectKind::eq:
        return EQSettings{};
    case EffectKind::compressor:
        return CompressorSettings{};
    case EffectKind::gate:
        return GateSettings{};
    case EffectKind::distortion:
        return DistortionSettings{};
    case EffectKind::delay:
        return DelaySettings{};
    case EffectKind::reverb:
        return ReverbSettings{};
    case EffectKind::chorus:
        return ChorusSettings{};
    case EffectKind::noiseReduction:
        return NoiseReductionSettings{};
    }
    return EQSettings{};
}

void to_json(nlohmann::json& json, const EffectSettings& settings) {
    nlohmann::json record;
    std::visit([&](const auto& s) { record = s; }, settings.value());
    json = nlohmann::json::object();
    json[std::string(rawValue(settings.kind()))] = nlohmann::json{{"_0", std::move(record)}};
}

EffectSettings effectSettingsFromJSON(const nlohmann::json& json) {
    if (!json.is_object() || json.size() != 1)
        settingsJSON::fail("Invalid number of keys found, expected one.", json);
    const auto entry = json.begin();
    const std::string& key = entry.key();
    const nlohmann::json& wrapper = entry.value();
    const auto kind = effectKindFromRawValue(key);
    if (!kind)
        settingsJSON::fail("unknown effect \"" + key + "\"", json);
    const auto& record = wrapper.at("_0");
    return std::visit([](auto&& s) { return EffectSettings(std::move(s)); },
                      decodeAlternative(static_cast<size_t>(*kind), record));
}

} // namespace harlune
