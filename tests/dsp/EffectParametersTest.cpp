#include "dsp/effects/EffectParameters.h"

#include "dsp/effects/PartialSettings.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>

namespace harlune {
namespace {

using nlohmann::json;

json recordOf(const EffectSettings& settings) {
    json record;
    std::visit([&](const auto& s) { record = s; }, settings.value());
    return record;
}

// Checks one table against a record of defaults written by the settings' own JSON encoder, which
// is independent of the table.
void expectTableMatches(std::span<const EffectParameter> table, const json& defaults,
                        const std::set<std::string>& undescribed, const std::string& what) {
    std::set<std::string> keys;
    for (const auto& parameter : table) {
        const std::string key(parameter.key);
        SCOPED_TRACE(what + "." + key);
        keys.insert(key);
        ASSERT_TRUE(defaults.contains(key)) << "no such settings field";
        const json& value = defaults.at(key);
        switch (parameter.scale) {
        case ParameterScale::toggle:
            EXPECT_EQ(parameter.defaultValue, value.get<bool>() ? 1.0 : 0.0);
            break;
        case ParameterScale::choice:
            ASSERT_LT(parameter.defaultValue, static_cast<double>(parameter.choices.size()));
            EXPECT_EQ(parameter.choices[static_cast<size_t>(parameter.defaultValue)],
                      value.get<std::string>());
            break;
        default:
            EXPECT_EQ(parameter.defaultValue, value.get<double>());
            EXPECT_EQ(parameter.isInteger, value.is_number_integer());
        }
        EXPECT_FALSE(parameter.displayName.empty());
        const double ceiling = parameter.maximumAt(48000.0);
        EXPECT_LE(parameter.minimum, parameter.defaultValue);
        EXPECT_GE(ceiling, parameter.defaultValue);
        EXPECT_TRUE(std::isfinite(parameter.editorMinimum) && std::isfinite(parameter.editorMaximum));
        EXPECT_LE(parameter.minimum, parameter.editorMinimum);
        EXPECT_GE(ceiling, parameter.editorMaximum);
        EXPECT_LE(parameter.editorMinimum, parameter.defaultValue);
        EXPECT_GE(parameter.editorMaximum, parameter.defaultValue);
        if (parameter.scale == ParameterScale::logarithmic) {
            EXPECT_GT(parameter.editorMinimum, 0) << "a log scale needs a positive floor";
        }
    }
    for (const auto& [key, value] : defaults.items())
        if (!undescribed.contains(key)) {
            EXPECT_TRUE(keys.contains(key)) << what << "." << key << " is not described";
        }
}

TEST(EffectParametersTest, TablesDescribeEveryFieldWithItsDefault) {
    for (const EffectKind kind : allEffectKinds()) {
        const std::set<std::string> undescribed = kind == EffectKind::eq ? std::set<std::string>{"bands"}
                                                  : kind == EffectKind::noiseReduction
                                                      ? std::set<std::string>{"profile"}
                                                      : std::set<std::string>{};
        expectTableMatches(effectParameters(kind), recordOf(defaultSettings(kind)), undescribed,
                           std::string(rawValue(kind)));
    }
    expectTableMatches(eqBandParameters(), json(EQBand{}), {"id"}, "EQBand");
}

TEST(EffectParametersTest, ChoicesAreTheEnumsRawValues) {
    const auto* type = findParameter(eqBandParameters(), "type");
    ASSERT_NE(type, nullptr);
    ASSERT_EQ(type->choices.size(), allEQBandTypes().size());
    for (size_t i = 0; i < type->choices.size(); ++i)
        EXPECT_EQ(type->choices[i], rawValue(allEQBandTypes()[i]));
    const auto* mode = findParameter(effectParameters(EffectKind::distortion), "mode");
    ASSERT_NE(mode, nullptr);
    ASSERT_EQ(mode->choices.size(), allSaturationModes().size());
    for (size_t i = 0; i < mode->choices.size(); ++i)
        EXPECT_EQ(saturationModeFromRawValue(mode->choices[i]), allSaturationModes()[i]);
}

TEST(EffectParametersTest, ProblemsNamePlaceAndValue) {
    for (const EffectKind kind : allEffectKinds())
        EXPECT_TRUE(parameterProblems(defaultSettings(kind), 44100.0).empty()) << rawValue(kind);

    DelaySettings delay;
    delay.feedback = 1.2;
    delay.mix = std::numeric_limits<double>::quiet_NaN();
    delay.timeMs = 4000; // the edge itself is inside
    const auto delayProblems = parameterProblems(delay);
    ASSERT_EQ(delayProblems.size(), 2u);
    EXPECT_EQ(delayProblems[0].path, "feedback");
    EXPECT_EQ(delayProblems[0].message, "feedback 1.2 lies outside 0 to 0.95");
    EXPECT_EQ(delayProblems[1].path, "mix");
    EXPECT_EQ(delayProblems[1].message, "mix is not a finite number");

    GateSettings gate;
    gate.rangeDB = 6;
    gate.thresholdDB = -200; // the gate takes any threshold
    const auto gateProblems = parameterProblems(gate);
    ASSERT_EQ(gateProblems.size(), 1u);
    EXPECT_EQ(gateProblems[0].message, "rangeDB 6 lies outside at most 0 dB");

    // The band's ceiling follows the rate: 30 kHz is fine at 96 kHz, not at 48 kHz.
    EQSettings eq;
    eq.bands[1].q = 100;
    eq.bands[3].frequency = 30000;
    eq.bands.resize(9);
    const auto eqProblems = parameterProblems(eq, 48000.0);
    ASSERT_EQ(eqProblems.size(), 3u);
    EXPECT_EQ(eqProblems[0].path, "bands[1].q");
    EXPECT_EQ(eqProblems[1].path, "bands[3].frequency");
    EXPECT_EQ(eqProblems[2].path, "bands");
    EXPECT_EQ(parameterProblems(eq, 96000.0).size(), 2u);
    EXPECT_EQ(parameterProblems(eq).size(), 2u);
}

TEST(PartialSettingsTest, MissingKeysTakeTheDefaults) {
    const auto reading =
        readSettingsOverDefaults(EffectKind::delay, json{{"feedback", 0.5}, {"pingPong", true}});
    EXPECT_TRUE(reading.issues.empty());
    DelaySettings expected;
    expected.feedback = 0.5;
    expected.pingPong = true;
    EXPECT_EQ(reading.settings, EffectSettings(expected));

    // A full record reads back to itself.
    ChorusSettings chorus;
    chorus.mode = ModulationMode::flanger;
    chorus.voices = 3;
    chorus.feedback = -0.4;
    const auto full = readSettingsOverDefaults(EffectKind::chorus, json(chorus));
    EXPECT_TRUE(full.issues.empty());
    EXPECT_EQ(full.settings, EffectSettings(chorus));
}

TEST(PartialSettingsTest, EachFaultIsReportedAndRepaired) {
    struct Row {
        EffectKind kind;
        json record;
        SettingsIssue::Kind issue;
        std::string path;
        std::string remedy;
    };
    const std::vector<Row> rows{
        {EffectKind::delay, {{"feedbak", 0.5}}, SettingsIssue::Kind::unknownKey, "feedbak", "skipped"},
        {EffectKind::delay,
         {{"feedback", "0.5"}},
         SettingsIssue::Kind::wrongType,
         "feedback",
         "kept the default 0.35"},
        {EffectKind::delay,
         {{"pingPong", 1}},
         SettingsIssue::Kind::wrongType,
         "pingPong",
         "kept the default false"},
        {EffectKind::delay,
         {{"feedback", 2}},
         SettingsIssue::Kind::outOfRange,
         "feedback",
         "clamped to 0.95"},
        {EffectKind::chorus,
         {{"voices", 2.5}},
         SettingsIssue::Kind::wrongType,
         "voices",
         "kept the default 2"},
        {EffectKind::chorus, {{"voices", 9}}, SettingsIssue::Kind::outOfRange, "voices", "clamped to 4"},
        {EffectKind::chorus,
         {{"mode", "vibrato"}},
         SettingsIssue::Kind::wrongType,
         "mode",
         "kept the default \"chorus\""},
        {EffectKind::compressor, {{"ratio", 0.5}}, SettingsIssue::Kind::outOfRange, "ratio", "clamped to 1"},
        {EffectKind::reverb, json::array(), SettingsIssue::Kind::wrongType, "", "used the defaults"},
        {EffectKind::eq, {{"bands", 3}}, SettingsIssue::Kind::wrongType, "bands", "kept the default bands"},
        {EffectKind::eq,
         {{"bands", {{{"q", 0}}}}},
         SettingsIssue::Kind::outOfRange,
         "bands[0].q",
         "clamped to 0.025"},
        {EffectKind::eq,
         {{"bands", {{{"slope", 12}}}}},
         SettingsIssue::Kind::unknownKey,
         "bands[0].slope",
         "skipped"},
        {EffectKind::eq,
         {{"bands", {{{"id", "nope"}}}}},
         SettingsIssue::Kind::wrongType,
         "bands[0].id",
         "gave the band a new id"},
        {EffectKind::noiseReduction,
         {{"profile", 5}},
         SettingsIssue::Kind::wrongType,
         "profile",
         "went without a profile"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.record.dump());
        const auto reading = readSettingsOverDefaults(row.kind, row.record);
        ASSERT_EQ(reading.issues.size(), 1u);
        EXPECT_EQ(reading.issues[0].kind, row.issue);
        EXPECT_EQ(reading.issues[0].path, row.path);
        EXPECT_EQ(reading.issues[0].remedy, row.remedy);
        EXPECT_FALSE(reading.issues[0].message.empty());
        EXPECT_EQ(reading.settings.kind(), row.kind);
    }
    const auto clamped = readSettingsOverDefaults(EffectKind::delay, json{{"feedback", 2}});
    EXPECT_EQ(clamped.settings.as<DelaySettings>()->feedback, 0.95);
}

TEST(PartialSettingsTest, BandsReadOverTheDefaultBandAtTheirPlace) {
    const auto reading = readSettingsOverDefaults(
        EffectKind::eq, json::parse(R"({"bands":[{}, {"gainDB": -3}, {}, {}, {}, {}, {"frequency": 50}]})"));
    ASSERT_TRUE(reading.issues.empty());
    const auto& bands = reading.settings.as<EQSettings>()->bands;
    const auto defaults = EQSettings::defaultBands();
    ASSERT_EQ(bands.size(), 7u);
    EXPECT_EQ(bands[1].type, defaults[1].type);
    EXPECT_EQ(bands[1].frequency, defaults[1].frequency);
    EXPECT_EQ(bands[1].gainDB, -3);
    EXPECT_EQ(bands[5].type, EQBandType::highCut);
    EXPECT_EQ(bands[6].type, EQBandType::peak);
    EXPECT_EQ(bands[6].frequency, 50);
    EXPECT_NE(bands[0].id, bands[6].id);
}

TEST(PartialSettingsTest, TaggedFormNeedsOneKnownKind) {
    std::string error;
    EXPECT_FALSE(readTaggedSettings(json{{"echo", {{"_0", json::object()}}}}, error));
    EXPECT_NE(error.find("echo"), std::string::npos);
    EXPECT_FALSE(readTaggedSettings(json{{"gate", json::object()}}, error));
    EXPECT_FALSE(readTaggedSettings(json::object(), error));
    EXPECT_EQ(error, "Invalid number of keys found, expected one.");
    const auto gate = readTaggedSettings(json{{"gate", {{"_0", {{"holdMs", 10}}}}}}, error);
    ASSERT_TRUE(gate);
    EXPECT_EQ(gate->settings.as<GateSettings>()->holdMs, 10);
}

} // namespace
} // namespace harlune
