#include "engine/RackFile.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

using nlohmann::json;

SavedRack sampleRack() {
    SavedRack rack;
    EQSettings eq;
    eq.bands[2].gainDB = 4.5;
    DelaySettings delay;
    delay.pingPong = true;
    NoiseReductionSettings noise;
    noise.profile = NoiseProfile{8, 44100, {1, 2, 3, 4, 5}};
    rack.slots.push_back({.source = EffectSettings(eq)});
    rack.slots.push_back({.isEnabled = false, .source = EffectSettings(delay)});
    rack.slots.push_back({.source = EffectSettings(noise)});
    rack.slots.push_back(
        {.source = EffectSlot::Plugin{{"http://example.org/amp", "Amp"}, json{{"gain", -6.5}}.dump()}});
    rack.previewEnabled = false;
    rack.tailMode = EffectTailMode::truncate;
    return rack;
}

TEST(RackFileTest, RoundTripKeepsEverything) {
    const SavedRack rack = sampleRack();
    const auto reading = RackFile::fromText(RackFile::text(rack));
    ASSERT_TRUE(reading.rack);
    EXPECT_TRUE(reading.messages.empty());
    EXPECT_EQ(*reading.rack, rack);
    EXPECT_EQ(reading.storedIDs, std::vector<bool>(4, true));

    // The documented shape, key by key.
    const json saved = RackFile::toJSON(rack);
    EXPECT_EQ(saved.at("tailMode"), "truncate");
    EXPECT_EQ(saved.at("previewEnabled"), false);
    EXPECT_EQ(saved.at("slots")[1].at("isEnabled"), false);
    EXPECT_TRUE(saved.at("slots")[1].at("builtin").contains("delay"));
    EXPECT_EQ(saved.at("slots")[3].at("plugin").at("uri"), "http://example.org/amp");
    EXPECT_EQ(saved.at("slots")[3].at("plugin").at("state").at("gain"), -6.5);
}

TEST(RackFileTest, PlainListOfSettingsIsARackOfEnabledSlots) {
    const auto reading = RackFile::fromText(R"([{"gate":{"_0":{"holdMs":20}}}, {"reverb":{"_0":{}}}])");
    ASSERT_TRUE(reading.rack);
    EXPECT_TRUE(reading.messages.empty());
    ASSERT_EQ(reading.rack->slots.size(), 2u);
    GateSettings gate;
    gate.holdMs = 20;
    EXPECT_EQ(std::get<EffectSettings>(reading.rack->slots[0].source), EffectSettings(gate));
    EXPECT_EQ(std::get<EffectSettings>(reading.rack->slots[1].source), EffectSettings(ReverbSettings{}));
    EXPECT_TRUE(reading.rack->slots[1].isEnabled);
    EXPECT_NE(reading.rack->slots[0].id, reading.rack->slots[1].id);
    EXPECT_EQ(reading.storedIDs, std::vector<bool>(2, false));
    EXPECT_EQ(reading.rack->tailMode, EffectTailMode::mixIntoFollowing);
}

// Each row: a rack text with one fault, how many slots survive, and a phrase of the message.
TEST(RackFileTest, EachFaultLoadsWhatItCanAndSaysWhat) {
    const std::string id = Uuid::random().string();
    struct Row {
        std::string text;
        size_t slots;
        std::string says;
    };
    const std::vector<Row> rows{
        {R"({"slots":[{"builtin":{"echo":{"_0":{}}}}, {"builtin":{"gate":{"_0":{}}}}]})", 1,
         "unknown effect"},
        {R"({"slots":[{"builtin":{"gate":{"_0":{"holdMs":"long"}}}}]})", 1, "holdMs must be a number"},
        {R"({"slots":[{"builtin":{"delay":{"_0":{"feedback":3}}}}]})", 1, "clamped to 0.95"},
        {R"({"slots":[{"builtin":{"delay":{"_0":{"fedback":0.3}}}}]})", 1, "unknown key"},
        {R"({"slots":[{"builtin":{"delay":{"_1":{}}}}]})", 0, "missing"},
        {R"({"slots":[{"builtin":{"delay":{"_0":{}},"gate":{"_0":{}}}}]})", 0, "expected one"},
        {R"({"slots":[{"plugin":{"uri":"urn:missing","name":"Gone"}}]})", 0, "not installed"},
        {R"({"slots":[{"plugin":{"name":"No URI"}}]})", 0, "needs a"},
        {R"({"slots":[{"plugin":{"uri":"urn:amp","state":{"gain":"loud"}}}]})", 1, "must be a number"},
        {R"({"slots":[{"plugin":{"uri":"urn:amp","state":[1]}}]})", 1, "defaults"},
        {R"({"slots":[{"id":"x","builtin":{"gate":{"_0":{}}}}]})", 1, "not a UUID"},
        {R"({"slots":[{"id":")" + id + R"(","builtin":{"gate":{"_0":{}}}},{"id":")" + id +
             R"(","builtin":{"gate":{"_0":{}}}}]})",
         2, "used by an earlier slot"},
        {R"({"slots":[{"isEnabled":1,"builtin":{"gate":{"_0":{}}}}]})", 1, "isEnabled"},
        {R"({"slots":[{"builtin":{"gate":{"_0":{}}},"plugin":{"uri":"urn:amp"}}]})", 0, "one of"},
        {R"({"slots":[{"isEnabled":true}]})", 0, "one of"},
        {R"({"slots":[{"builtin":{"gate":{"_0":{}}},"colour":"red"}]})", 1, "colour"},
        {R"({"slots":[7, {"builtin":{"gate":{"_0":{}}}}]})", 1, "not an object"},
        {R"({"slots":{}})", 0, "must be a list"},
        {R"({"tailMode":"keep","slots":[]})", 0, "tailMode"},
        {R"({"previewEnabled":"yes","slots":[]})", 0, "previewEnabled"},
        {R"({"slot":[]})", 0, "no \u201cslots\u201d"},
        {R"({"slots":[{"eq":{"_0":{"bands":[{"q":1e9}]}}}]})", 1, "bands[0].q"},
    };
    const RackFile::PluginCheck installed = [](const PluginDescriptor& plugin) {
        return plugin.id == "urn:amp";
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const auto reading = RackFile::fromText(row.text, installed);
        ASSERT_TRUE(reading.rack);
        EXPECT_EQ(reading.rack->slots.size(), row.slots);
        EXPECT_EQ(reading.storedIDs.size(), row.slots);
        ASSERT_FALSE(reading.messages.empty());
        std::string all;
        for (const auto& message : reading.messages)
            all += message + "\n";
        EXPECT_NE(all.find(row.says), std::string::npos) << all;
    }
}

TEST(RackFileTest, TextThatIsNoRackGivesNoRack) {
    for (const std::string text : {"", "{", "42", "\"rack\"", "null", "[1, 2", "\xff\xfe"}) {
        SCOPED_TRACE(text);
        const auto reading = RackFile::fromText(text);
        EXPECT_FALSE(reading.rack);
        EXPECT_EQ(reading.messages.size(), 1u);
    }
    const auto missing = RackFile::readFile("/nonexistent/rack.json");
    EXPECT_FALSE(missing.rack);
    ASSERT_EQ(missing.messages.size(), 1u);
    EXPECT_NE(missing.messages[0].find("can\u2019t read"), std::string::npos);
}

// Every prefix of a valid rack text, and the text with each byte changed, reads without a crash.
TEST(RackFileTest, DamagedTextNeverCrashes) {
    const std::string text = RackFile::text(sampleRack());
    for (size_t length = 0; length < text.size(); length += 7)
        (void)RackFile::fromText(text.substr(0, length));
    for (size_t at = 0; at < text.size(); at += 3) {
        for (const char replacement : {'0', '"', '{', ']', '-', 'x'}) {
            std::string damaged = text;
            damaged[at] = replacement;
            (void)RackFile::fromText(damaged);
        }
    }
}

} // namespace
} // namespace harlune
