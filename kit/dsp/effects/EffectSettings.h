#pragma once

#include "dsp/effects/ChorusSettings.h"
#include "dsp/effects/CompressorSettings.h"
#include "dsp/effects/DelaySettings.h"
#include "dsp/effects/DistortionSettings.h"
#include "dsp/effects/EQSettings.h"
#include "dsp/effects/GateSettings.h"
#include "dsp/effects/NoiseReductionSettings.h"
#include "dsp/effects/ReverbSettings.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string_view>
#include <variant>

namespace harlune {

/// The built-in effects, in the order of every list.
enum class EffectKind { eq, compressor, gate, distortion, delay, reverb, chorus, noiseReduction };

/// The groups effects are listed under.
enum class EffectCategory { tone, dynamics, space, restoration };

std::span<const EffectKind> allEffectKinds();
/// The raw value, also the `id`: "eq", "compressor", "gate", "distortion", "delay", "reverb",
/// "chorus", "noiseReduction".
std::string_view rawValue(EffectKind kind);
std::optional<EffectKind> effectKindFromRawValue(std::string_view raw);
std::string_view displayName(EffectKind kind);
EffectCategory category(EffectKind kind);
/// The name of a monochrome icon.
std::string_view symbol(EffectKind kind);

/// The raw value, which is the title: "Tone", "Dynamics", "Time & Space", "Restoration".
std::string_view rawValue(EffectCategory category);

/// The settings of one effect: one alternative per `EffectKind`, in the same order. Values are
/// kept as entered; each processor clamps what it uses.
class EffectSettings {
public:
    using Value = std::variant<EQSettings, CompressorSettings, GateSettings, DistortionSettings,
                               DelaySettings, ReverbSettings, ChorusSettings, NoiseReductionSettings>;

    EffectSettings(EQSettings s) : value_(std::move(s)) {}
    EffectSettings(CompressorSettings s) : value_(std::move(s)) {}
    EffectSettings(GateSettings s) : value_(std::move(s)) {}
    EffectSettings(DistortionSettings s) : value_(std::move(s)) {}
    EffectSettings(DelaySettings s) : value_(std::move(s)) {}
    EffectSettings(ReverbSettings s) : value_(std::move(s)) {}
    EffectSettings(ChorusSettings s) : value_(std::move(s)) {}
    EffectSettings(NoiseReductionSettings s) : value_(std::move(s)) {}

    /// The value built from each field's default.
    static EffectSettings defaultSettings(EffectKind kind);

    EffectKind kind() const { return static_cast<EffectKind>(value_.index()); }
    const Value& value() const { return value_; }
    /// The record when the settings are of that kind, null otherwise.
    template <class Settings> const Settings* as() const { return std::get_if<Settings>(&value_); }

    friend bool operator==(const EffectSettings&, const EffectSettings&) = default;

private:
    Value value_;
};

/// The settings of a kind built from each field's default (`EffectSettings::defaultSettings`).
inline EffectSettings defaultSettings(EffectKind kind) {
    return EffectSettings::defaultSettings(kind);
}

/// {"<case name>": {"_0": {record}}}. Decoding throws nlohmann::json::exception: for a top-level
/// object with other than one key ("Invalid number of keys found, expected one."), an unknown
/// case, a missing "_0", a missing field or an unknown enum string.
void to_json(nlohmann::json& json, const EffectSettings& settings);
EffectSettings effectSettingsFromJSON(const nlohmann::json& json);

} // namespace harlune

namespace nlohmann {
/// Lets `json.get<EffectSettings>()` work although the type has no default value.
template <> struct adl_serializer<harlune::EffectSettings> {
    static harlune::EffectSettings from_json(const json& j) { return harlune::effectSettingsFromJSON(j); }
    static void to_json(json& j, const harlune::EffectSettings& s) { harlune::to_json(j, s); }
};
} // namespace nlohmann
