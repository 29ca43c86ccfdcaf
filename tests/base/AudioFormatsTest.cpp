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

TEST(EncodeSettingsNormalized, BitDepthFallsBackToTwentyFourThenFirst) {
    EXPECT_EQ(settings(ExportFormat::flac, PCMBitDepth::int32, 0).normalized().bitDepth, PCMBitDepth::int24);
    EXPECT_EQ(settings(ExportFormat::flac, PCMBitDepth::float32, 0).normalized().bitDepth,
              PCMBitDepth::int24);
    EXPECT_EQ(settings(ExportFormat::aiff, PCMBitDepth::float32, 0).normalized().bitDepth,
              PCMBitDepth::int24);
    EXPECT_EQ(settings(ExportFormat::wav, PCMBitDepth::float32, 0).normalized().bitDepth,
              PCMBitDepth::float32);
    // Lossy formats have no depths: the depth is left alone.
    EXPECT_EQ(settings(ExportFormat::mp3, PCMBitDepth::int16, 320).normalized().bitDepth, PCMBitDepth::int16);
}

TEST(EncodeSettingsNormalized, BitRateGoesToNearestWithTiesToTheLower) {
    EXPECT_EQ(settings(ExportFormat::opus, PCMBitDepth::int24, 140).normalized().bitRateKbps, 120);
    EXPECT_EQ(settings(ExportFormat::opus, PCMBitDepth::int24, 90).normalized().bitRateKbps, 80);
    EXPECT_EQ(settings(ExportFormat::mp3, PCMBitDepth::int24, 1000).normalized().bitRateKbps, 320);
    EXPECT_EQ(settings(ExportFormat::aac, PCMBitDepth::int24, -5).normalized().bitRateKbps, 64);
    EXPECT_EQ(settings(ExportFormat::wav, PCMBitDepth::int24, 12345).normalized().bitRateKbps, 12345);
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

TEST(AudioFileInfoTest, DurationAndEquality) {
    AudioFileInfo info;
    info.sampleRate = 48000;
    info.frameCount = 96000;
    EXPECT_DOUBLE_EQ(info.duration(), 2.0);
    AudioFileInfo other = info;
    EXPECT_EQ(info, other);
    other.decoderName = "ffmpeg";
    EXPECT_NE(info, other);
    info.sampleRate = 0;
    EXPECT_EQ(info.duration(), 0.0);
}

} // namespace
} // namespace harlune
