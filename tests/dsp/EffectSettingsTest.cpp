#include "dsp/effects/EffectSettings.h"

#include "base/HarluneError.h"
#include "dsp/effects/EffectFactory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

using nlohmann::json;

TEST(EffectKindTest, TableInOrder) {
    const std::vector<std::string_view> raws{"eq",    "compressor", "gate",   "distortion",
                                             "delay", "reverb",     "chorus", "noiseReduction"};
    const std::vector<std::string_view> names{"Parametric EQ",    "Compressor",     "Noise Gate",
                                              "Saturation",       "Delay",          "Reverb",
                                              "Chorus / Flanger", "Noise Reduction"};
    ASSERT_EQ(allEffectKinds().size(), 8u);
    for (size_t i = 0; i < 8; ++i) {
        const EffectKind kind = allEffectKinds()[i];
        EXPECT_EQ(rawValue(kind), raws[i]);
        EXPECT_EQ(displayName(kind), names[i]);
        EXPECT_EQ(effectKindFromRawValue(raws[i]), kind);
        EXPECT_EQ(EffectSettings::defaultSettings(kind).kind(), kind);
        EXPECT_EQ(defaultSettings(kind).kind(), kind);
        if (kind != EffectKind::eq) { // EQ bands get fresh ids each time
            EXPECT_EQ(defaultSettings(kind), EffectSettings::defaultSettings(kind));
        }
    }
    EXPECT_FALSE(effectKindFromRawValue("Reverb"));
}

TEST(EffectSettingsJSONTest, DefaultGateHasTheDocumentedForm) {
    const json j = EffectSettings::defaultSettings(EffectKind::gate);
    const json expected =
        json::parse(R"({"gate":{"_0":{"thresholdDB":-45,"rangeDB":-60,"attackMs":1,"holdMs":50,
        "releaseMs":150,"hysteresisDB":3,"stereoLink":true}}})");
    EXPECT_EQ(j, expected);
}

TEST(EffectSettingsJSONTest, EveryKindRoundTrips) {
    EQSettings eq;
    eq.bands[2].gainDB = -4.5;
    eq.bands[0].type = EQBandType::notch;
    CompressorSettings compressor;
    compressor.detection = DetectionMode::rms;
    DistortionSettings distortion;
    distortion.mode = SaturationMode::bitcrush;
    ChorusSettings chorus;
    chorus.mode = ModulationMode::flanger;
    NoiseReductionSettings noise;
    noise.profile = NoiseProfile{4, 44100, {1, 2, 3}};
    const std::vector<EffectSettings> all{eq,
                                          compressor,
                                          GateSettings{.thresholdDB = -30},
                                          distortion,
                                          DelaySettings{.pingPong = true},
                                          ReverbSettings{.size = 0.1},
                                          chorus,
                                          noise};
    for (const auto& settings : all) {
        const json j = settings;
        EXPECT_EQ(j.get<EffectSettings>(), settings) << j.dump();
        EXPECT_EQ(j.begin().key(), rawValue(settings.kind()));
    }
    const json eqJSON = EffectSettings(eq);
    const auto& band = eqJSON["eq"]["_0"]["bands"][0];
    EXPECT_EQ(band["type"], "notch");
    EXPECT_EQ(band["id"], eq.bands[0].id.string());
    EXPECT_EQ(json(EffectSettings(noise))["noiseReduction"]["_0"]["profile"]["binPower"], json({1, 2, 3}));
    EXPECT_NE(eq.bands[0].id, EQSettings().bands[0].id) << "a new id per band";
}

TEST(EffectSettingsJSONTest, ProfileMayBeAbsentOrNull) {
    const auto settings = json::parse(R"({"noiseReduction":{"_0":{"profile":null,"reductionDB":6,
        "sensitivityDB":1,"smoothing":0.2,"outputNoiseOnly":true}}})")
                              .get<EffectSettings>();
    const auto* record = settings.as<NoiseReductionSettings>();
    ASSERT_NE(record, nullptr);
    EXPECT_FALSE(record->profile);
    EXPECT_EQ(record->reductionDB, 6);
    EXPECT_TRUE(record->outputNoiseOnly);
    EXPECT_EQ(settings.as<GateSettings>(), nullptr);
}

TEST(EffectSettingsJSONTest, MalformedFormsFail) {
    const auto fails = [](const char* text) {
        EXPECT_THROW(json::parse(text).get<EffectSettings>(), json::exception) << text;
    };
    EXPECT_THAT([] { json::parse(R"({"gate":{"_0":{}}, "delay":{"_0":{}}})").get<EffectSettings>(); },
                ::testing::ThrowsMessage<json::exception>(
                    ::testing::HasSubstr("Invalid number of keys found, expected one.")));
    fails("{}");
    fails("[]");
    fails(R"({"flanger":{"_0":{}}})");
    fails(R"({"gate":{"_1":{}}})");
    fails(R"({"gate":{"_0":{"thresholdDB":-45,"rangeDB":-60,"attackMs":1,"holdMs":50,"releaseMs":150,
        "hysteresisDB":3}}})");
    fails(R"({"chorus":{"_0":{"mode":"vibrato","rateHz":0.8,"depth":0.5,"delayMs":15,"feedback":0,"voices":2,
        "stereoSpread":0.5,"mix":0.5}}})");
    fails(R"({"noiseReduction":{"_0":{"sensitivityDB":0,"smoothing":0.5,"outputNoiseOnly":false}}})");
    fails(R"({"distortion":{"_0":{"mode":"soft","driveDB":12,"toneHz":12000,"outputDB":-6,"mix":1,"bits":8,
        "downsample":1}}})");
}

TEST(EffectFactoryTest, EveryKindMakesAProcessorThatPrepares) {
    for (const EffectKind kind : allEffectKinds()) {
        SCOPED_TRACE(std::string(rawValue(kind)));
        const auto processor = EffectFactory::makeProcessor(defaultSettings(kind));
        ASSERT_NE(processor, nullptr);
        processor->prepare(48000, 2, 256);
        EXPECT_TRUE(processor->isPrepared());
    }
}

} // namespace
} // namespace harlune
