#include "base/AudioFormats.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

EncodeSettings settings(ExportFormat format, PCMBitDepth depth, int kbps) {
    EncodeSettings s = EncodeSettings::defaults(format);
    s.bitDepth = depth;
    s.bitRateKbps = kbps;
    return s;
}

TEST(ExportFormatTable, RawValuesRoundTripInMenuOrder) {
    const std::vector<std::string> expected{"wav", "aiff", "caf", "flac", "alac", "aac", "mp3", "opus"};
    ASSERT_EQ(allExportFormats().size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(rawValue(allExportFormats()[i]), expected[i]);
        EXPECT_EQ(exportFormatFromRawValue(expected[i]), allExportFormats()[i]);
    }
    EXPECT_EQ(exportFormatFromRawValue("WAV"), std::nullopt);
}

TEST(EncodeSettingsNormalized, DepthFallsBackToTwentyFourAndRateToTheNearestWithTiesLow) {
    struct Case {
        ExportFormat format;
        PCMBitDepth depth, expectedDepth;
        int kbps, expectedKbps;
    };
    const Case cases[] = {
        {ExportFormat::flac, PCMBitDepth::int32, PCMBitDepth::int24, 0, 0},
        {ExportFormat::flac, PCMBitDepth::float32, PCMBitDepth::int24, 0, 0},
        {ExportFormat::aiff, PCMBitDepth::float32, PCMBitDepth::int24, 0, 0},
        {ExportFormat::wav, PCMBitDepth::float32, PCMBitDepth::float32, 12345, 12345},
        {ExportFormat::mp3, PCMBitDepth::int16, PCMBitDepth::int16, 1000, 320}, // lossy: depth left alone
        {ExportFormat::opus, PCMBitDepth::int24, PCMBitDepth::int24, 140, 120},
        {ExportFormat::opus, PCMBitDepth::int24, PCMBitDepth::int24, 90, 80},
        {ExportFormat::aac, PCMBitDepth::int24, PCMBitDepth::int24, -5, 64},
    };
    for (const Case& c : cases) {
        const EncodeSettings s = settings(c.format, c.depth, c.kbps).normalized();
        EXPECT_EQ(s.bitDepth, c.expectedDepth) << rawValue(c.format) << " " << c.kbps;
        EXPECT_EQ(s.bitRateKbps, c.expectedKbps) << rawValue(c.format) << " " << c.kbps;
    }
}

TEST(EncodeSettingsJSON, ExactKeysAndOptionalRate) {
    EncodeSettings s = settings(ExportFormat::flac, PCMBitDepth::float32, 128);
    s.dither = DitherMode::none;
    nlohmann::json json = s;
    EXPECT_EQ(json,
              nlohmann::json::parse(R"({"format":"flac","bitDepth":0,"bitRateKbps":128,"dither":"none"})"));
    EXPECT_EQ(json.get<EncodeSettings>(), s);

    s.sampleRate = 44100;
    json = s;
    EXPECT_EQ(json.at("sampleRate").get<double>(), 44100.0);
    EXPECT_EQ(json.get<EncodeSettings>(), s);
    EXPECT_EQ(std::hash<EncodeSettings>{}(json.get<EncodeSettings>()), std::hash<EncodeSettings>{}(s));
}

TEST(EncodeSettingsJSON, RefusesMissingKeysAndUnknownValues) {
    const char* bad[] = {
        R"({"bitDepth":24,"bitRateKbps":128,"dither":"none"})",
        R"({"format":"flac","bitRateKbps":128,"dither":"none"})",
        R"({"format":"flac","bitDepth":24,"dither":"none"})",
        R"({"format":"flac","bitDepth":24,"bitRateKbps":128})",
        R"({"format":"ogg","bitDepth":24,"bitRateKbps":128,"dither":"none"})",
        R"({"format":"flac","bitDepth":20,"bitRateKbps":128,"dither":"none"})",
        R"({"format":"flac","bitDepth":24,"bitRateKbps":128,"dither":"shaped"})",
        R"({"format":"flac","bitDepth":"24","bitRateKbps":128,"dither":"none"})",
    };
    for (const char* text : bad)
        EXPECT_THROW((void)nlohmann::json::parse(text).get<EncodeSettings>(), nlohmann::json::exception)
            << text;
}

TEST(AudioFileInfoTest, DurationIsZeroWithoutARate) {
    AudioFileInfo info;
    info.sampleRate = 48000;
    info.frameCount = 96000;
    EXPECT_DOUBLE_EQ(info.duration(), 2.0);
    info.sampleRate = 0;
    EXPECT_EQ(info.duration(), 0.0);
}

} // namespace
} // namespace harlune
