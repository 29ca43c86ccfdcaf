#pragma once

#include "dsp/effects/EffectSettings.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace harlune {

/// What a settings reader found wrong in one place, and what it did instead.
struct SettingsIssue {
    enum class Kind { unknownKey, wrongType, outOfRange };
    Kind kind;
    std::string path;    ///< "feedback", "bands[1].q", or "" for the record itself
    std::string message; ///< what is wrong: "feedback 1.2 lies outside 0 to 0.95"
    std::string remedy;  ///< what was done: "clamped to 0.95", "skipped", "kept the default 0.35"
};

struct SettingsReading {
    EffectSettings settings;
    std::vector<SettingsIssue> issues;
};

/// Reads a settings record (keys = field names) over the kind's defaults, so that a record with
/// only some keys sets only those. Never throws: an unknown key is skipped, a value of the wrong
/// type keeps the default, a number outside the processor's clamp range is clamped to it, and
/// each is reported. Rate-bound ceilings are left to the processor, which knows the rate.
///
/// For the EQ, "bands" replaces the band list; band i is read over default band i (over a
/// default bell beyond the six default bands), and a band without "id" gets a new one.
SettingsReading readSettingsOverDefaults(EffectKind kind, const nlohmann::json& record);

/// The tagged form {"<kind>": {"_0": {record}}}, read as `readSettingsOverDefaults` reads the
/// record. Absent, with `error` set, when the form is wrong or the kind unknown.
std::optional<SettingsReading> readTaggedSettings(const nlohmann::json& json, std::string& error);

/// "unknown key", "wrong type", "out of range".
std::string_view describe(SettingsIssue::Kind kind);

} // namespace harlune
