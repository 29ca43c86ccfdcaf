// harlune-cli effects and the effect options of process, run as a user runs them.
#include "cli/CliTestSupport.h"
#include "dsp/effects/PartialSettings.h"
#include "dsp/plugins/PluginEffect.h"
#include "engine/RackFile.h"

#include <cmath>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

using testing::CliResult;
using Planes = std::vector<std::vector<float>>;

class EffectOptions : public testing::SharedFolderTest<EffectOptions> {
protected:
    static void SetUpTestSuite() {
        makeFolder();
        auto tone = testing::stereoSource(1.0);
        tone.insert(tone.end(), {"-c:a", "pcm_f32le", file("in.wav")});
        testing::ffmpeg(tone);
        input = testing::referenceDecode(file("in.wav"), 2);
    }

    static Planes run(std::vector<std::string> operations) {
        operations.insert(operations.begin(), "process");
        operations.insert(operations.end(), {"--bits", "float", file("in.wav"), file("out.wav")});
        const CliResult result = testing::cli(operations);
        EXPECT_EQ(result.status, 0) << result.err;
        return testing::referenceDecode(file("out.wav"), 2);
    }

    static void expectGain(const Planes& out, double db, size_t from, size_t to) {
        ASSERT_EQ(out[0].size(), input[0].size());
        const auto factor = static_cast<float>(std::pow(10.0, db / 20.0));
        for (size_t c = 0; c < 2; ++c)
            for (size_t f = 0; f < out[c].size(); f += 7) {
                const float expected = f >= from && f < to ? input[c][f] * factor : input[c][f];
                ASSERT_NEAR(out[c][f], expected, 1e-5) << c << " " << f;
            }
    }

    static inline Planes input;
};

// What the listing gives as defaults is what --effect takes: each kind's listed defaults read
// back, with no complaint, to that kind's default settings.
TEST_F(EffectOptions, ListingDescribesWhatTheReadersTake) {
    const CliResult listed = testing::cli({"effects", "--json"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    const auto kinds = nlohmann::json::parse(listed.out);
    ASSERT_EQ(kinds.size(), allEffectKinds().size());
    for (const auto& entry : kinds) {
        const auto kind = effectKindFromRawValue(entry.at("kind").get<std::string>());
        ASSERT_TRUE(kind);
        nlohmann::json record = nlohmann::json::object();
        for (const auto& parameter : entry.at("parameters"))
            record[parameter.at("key").get<std::string>()] = parameter.at("default");
        const auto reading = readSettingsOverDefaults(*kind, record);
        EXPECT_TRUE(reading.issues.empty()) << entry.at("kind");
        if (*kind != EffectKind::eq) { // EQ bands get new ids
            EXPECT_EQ(reading.settings, defaultSettings(*kind)) << entry.at("kind");
        }
    }
    const CliResult text = testing::cli({"effects"});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("feedback"), std::string::npos);
    EXPECT_EQ(testing::cli({"effects", "--plugins"}).status, 0);
}

TEST_F(EffectOptions, EffectTakesPartialSettingsOverTheDefaults) {
    // The default EQ bands are flat, so only the output gain acts.
    expectGain(run({"--select", "0.25:0.5", "--effect", R"(eq={"outputGainDB": -6})"}), -6, 12000, 24000);
    testing::writeFile(file("eq.json"), R"({"outputGainDB": 4})");
    expectGain(run({"--effect", "eq@" + file("eq.json"), "--tail", "cut"}), 4, 0, 48000);
    expectGain(run({"--effect", "eq=@" + file("eq.json"), "--effect", R"(eq={"outputGainDB": -1})"}), 3, 0,
               48000);
    // Keeping the whole tail of a chain without one leaves the length as it was.
    expectGain(run({"--select", "0.5:0.75", "--tail", "keep", "--effect", R"(eq={"outputGainDB": 2})"}), 2,
               24000, 36000);
}

TEST_F(EffectOptions, EffectsReadsASavedRackAndRefusesARepairedOne) {
    SavedRack rack;
    EQSettings cut, boost;
    cut.outputGainDB = -6;
    boost.outputGainDB = 12;
    rack.slots.push_back({.source = EffectSettings(cut)});
    rack.slots.push_back({.isEnabled = false, .source = EffectSettings(boost)}); // not applied
    testing::writeFile(file("rack.json"), RackFile::text(rack));
    expectGain(run({"--effects", file("rack.json")}), -6, 0, 48000);

    testing::writeFile(file("clamped.json"), R"([{"eq": {"_0": {"outputGainDB": 80}}}])");
    const CliResult clamped =
        testing::cli({"process", "--effects", file("clamped.json"), file("in.wav"), file("bad.wav")});
    EXPECT_EQ(clamped.status, 1);
    EXPECT_NE(clamped.err.find("slot 1 (Parametric EQ): outputGainDB 80 lies outside -48 to 48 dB"),
              std::string::npos)
        << clamped.err;
    EXPECT_FALSE(std::filesystem::exists(file("bad.wav")));
}

// A rack file that holds no rack stops play before any device is opened; one with faults that
// can be skipped would play (not tried here: no sound server).
TEST_F(EffectOptions, PlayRefusesARackFileThatHoldsNoRack) {
    testing::writeFile(file("broken.json"), "{\"slots\": [");
    for (const auto& [rack, says] : std::vector<std::pair<std::string, std::string>>{
             {file("absent.json"), "can\u2019t read"}, {file("broken.json"), "not valid JSON"}}) {
        const CliResult result = testing::cli({"play", file("in.wav"), "--effects", rack});
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.err.find("--effects: \u2018" + rack + "\u2019: " + says), std::string::npos)
            << result.err;
    }
}

TEST_F(EffectOptions, PluginTakesControlValuesBySymbol) {
    const std::string amp = "http://plugin.org.uk/swh-plugins/amp";
    const auto installed = PluginEffect::installedPlugins();
    if (std::ranges::find(installed, amp, &PluginDescriptor::id) == installed.end())
        GTEST_SKIP() << "swh-lv2 is not installed";
    expectGain(run({"--effect", "lv2:" + amp + R"(={"gain": -6})", "--effect", R"(eq={"outputGainDB": 1})"}),
               -5, 0, 48000);
    for (const auto& [controls, says] : std::vector<std::pair<std::string, std::string>>{
             {R"({"gian": 1})", "unknown control \u201cgian\u201d (its controls: gain)"},
             {R"({"gain": "loud"})", "gain must be a number, not string"},
             {R"({"gain": -600})", "gain -600 lies outside -70 to 70"},
             {"[1]", "must be an object"},
             {"{", "not valid JSON"}}) {
        const CliResult result = testing::cli(
            {"process", "--effect", "lv2:" + amp + "=" + controls, file("in.wav"), file("bad.wav")});
        EXPECT_EQ(result.status, 2);
        EXPECT_NE(result.err.find("--effect lv2:" + amp + ": "), std::string::npos) << result.err;
        EXPECT_NE(result.err.find(says), std::string::npos) << result.err;
    }
}

} // namespace
} // namespace harlune
