// The naming tables, the format catalog and ffprobe's JSON, against the tables they come from.
#include "base/HarluneError.h"
#include "io/FFmpegDecoder.h"
#include "io/FormatCatalog.h"
#include "io/FormatCodes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

using nlohmann::json;

TEST(FourCC, printsFourPrintableBytesAsTextAndOthersAsNumbers) {
    EXPECT_EQ(FourCC::string(fourCC("WAVE")), "WAVE");
    EXPECT_EQ(FourCC::string(fourCC("aac ")), "aac ");
    EXPECT_EQ(FourCC::string(0x6D730011), "1836253201");
    EXPECT_EQ(FourCC::string(0x7F414243), "2134983235"); // DEL is not printable
    EXPECT_EQ(FourCC::status(-50), "OSStatus -50");
    EXPECT_EQ(FourCC::status(static_cast<int32_t>(fourCC("wht?"))), "OSStatus 2003334207 'wht?'");
}

TEST(FormatCodes, labelsContainersAndCodecsAndFallsBackToTheCode) {
    EXPECT_EQ(FormatCodes::container(fourCC("AIFC")), "AIFF-C");
    EXPECT_EQ(FormatCodes::container(fourCC("W64f")), "Wave64");
    EXPECT_EQ(FormatCodes::container(fourCC("MPG2")), "MPEG Audio");
    EXPECT_EQ(FormatCodes::container(fourCC("mp4f")), "MPEG-4");
    EXPECT_EQ(FormatCodes::container(fourCC("zzzz")), "zzzz");
    EXPECT_EQ(FormatCodes::codec(fourCC(".mp1")), "MPEG Layer I");
    EXPECT_EQ(FormatCodes::codec(fourCC("ulaw")), "\u00B5-law");
    EXPECT_EQ(FormatCodes::codec(0x6D730031), "GSM 6.10");
    EXPECT_EQ(FormatCodes::codec(7), "7");
}

TEST(FormatCodes, nativeExportFormatFollowsContainerAndCodec) {
    const auto lpcm = fourCC("lpcm");
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("WAVE"), lpcm), ExportFormat::wav);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("RF64"), lpcm), ExportFormat::wav);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("WAVE"), 0x6D730002),
              std::nullopt); // compressed WAVE
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("AIFC"), lpcm), ExportFormat::aiff);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("AIFC"), fourCC("ima4")), std::nullopt);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("caff"), fourCC("alac")), ExportFormat::caf);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("flac"), fourCC("flac")), ExportFormat::flac);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("MPG3"), fourCC(".mp3")), ExportFormat::mp3);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("MPG1"), fourCC(".mp1")), std::nullopt);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("MPG2"), fourCC(".mp2")), std::nullopt);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("adts"), fourCC("aac ")), ExportFormat::aac);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("m4af"), fourCC("alac")), ExportFormat::alac);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("m4bf"), fourCC("aac ")), ExportFormat::aac);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("mp4f"), fourCC("aach")), std::nullopt);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("Oggf"), fourCC("opus")), ExportFormat::opus);
    EXPECT_EQ(FormatCodes::nativeExportFormat(fourCC("Oggf"), fourCC("vorb")), std::nullopt);
}

TEST(FormatCatalog, mapsExtensionsWhateverTheirCase) {
    EXPECT_EQ(FormatCatalog::exportFormat(".WAV"), FormatCatalog::exportFormat("wav"));
    EXPECT_EQ(FormatCatalog::exportFormat(".WAV"), ExportFormat::wav);
    EXPECT_EQ(FormatCatalog::exportFormat("Rf64"), ExportFormat::wav);
    EXPECT_EQ(FormatCatalog::exportFormat("aifc"), ExportFormat::aiff);
    EXPECT_EQ(FormatCatalog::exportFormat("alac"), ExportFormat::alac);
    EXPECT_EQ(FormatCatalog::exportFormat("m4a"), ExportFormat::aac);
    EXPECT_EQ(FormatCatalog::exportFormat("opus"), ExportFormat::opus);
    EXPECT_EQ(FormatCatalog::exportFormat("..wav"), std::nullopt); // only one point is dropped
    EXPECT_EQ(FormatCatalog::exportFormat("ogg"), std::nullopt);
    EXPECT_EQ(FormatCatalog::exportFormat(""), std::nullopt);
}

TEST(FormatCatalog, mapsKnownTypeIdentifiersOnly) {
    EXPECT_EQ(FormatCatalog::exportFormatForTypeIdentifier("public.aifc-audio"), ExportFormat::aiff);
    EXPECT_EQ(FormatCatalog::exportFormatForTypeIdentifier("com.apple.coreaudio-format"), ExportFormat::caf);
    EXPECT_EQ(FormatCatalog::exportFormatForTypeIdentifier("com.apple.m4b-audio"), ExportFormat::aac);
    EXPECT_EQ(FormatCatalog::exportFormatForTypeIdentifier("public.mpeg-3"), ExportFormat::mp3);
    EXPECT_EQ(FormatCatalog::exportFormatForTypeIdentifier("org.xiph.opus"), ExportFormat::opus);
    EXPECT_EQ(FormatCatalog::exportFormatForTypeIdentifier("PUBLIC.MP3"), std::nullopt);
    EXPECT_EQ(FormatCatalog::exportFormatForTypeIdentifier("public.audio"), std::nullopt);
}

TEST(FFmpegNames, labelContainersByTheFirstPieceAndExportFormatsByAllPieces) {
    EXPECT_EQ(FFmpegDecoder::containerName("mov,mp4,m4a,3gp,3g2,mj2", "QuickTime / MOV"), "MPEG-4");
    EXPECT_EQ(FFmpegDecoder::containerName("matroska,webm", std::nullopt), "Matroska");
    EXPECT_EQ(FFmpegDecoder::containerName("ape", std::nullopt), "Monkey\u2019s Audio");
    EXPECT_EQ(FFmpegDecoder::containerName("tta", "TTA (True Audio)"), "TTA (True Audio)");
    EXPECT_EQ(FFmpegDecoder::containerName("xyz", std::nullopt), "xyz");
    EXPECT_EQ(FFmpegDecoder::codecName("pcm_s24le", std::nullopt), "Linear PCM");
    EXPECT_EQ(FFmpegDecoder::codecName("mp3float", std::nullopt), "MP3");
    EXPECT_EQ(FFmpegDecoder::codecName("wmalossless", std::nullopt), "WMA Lossless");
    EXPECT_EQ(FFmpegDecoder::codecName("gsm", "GSM"), "GSM");
    EXPECT_EQ(FFmpegDecoder::codecName("gsm", std::nullopt), "gsm");

    EXPECT_EQ(FFmpegDecoder::nativeExportFormat("matroska,webm", "opus"), std::nullopt);
    EXPECT_EQ(FFmpegDecoder::nativeExportFormat("mov,mp4,m4a,3gp,3g2,mj2", "alac"), ExportFormat::alac);
    EXPECT_EQ(FFmpegDecoder::nativeExportFormat("mov,mp4,m4a,3gp,3g2,mj2", "aac"), ExportFormat::aac);
    EXPECT_EQ(FFmpegDecoder::nativeExportFormat("mov,mp4,m4a,3gp,3g2,mj2", "mp3"), std::nullopt);
    EXPECT_EQ(FFmpegDecoder::nativeExportFormat("wav", "pcm_s16le"), ExportFormat::wav);
    EXPECT_EQ(FFmpegDecoder::nativeExportFormat("w64", "adpcm_ms"), std::nullopt);
    EXPECT_EQ(FFmpegDecoder::nativeExportFormat("aiff", "pcm_s16be"), ExportFormat::aiff);
    EXPECT_EQ(FFmpegDecoder::nativeExportFormat("ogg", "vorbis"), std::nullopt);
    EXPECT_EQ(FFmpegDecoder::nativeExportFormat("ogg", "opus"), ExportFormat::opus);
}

TEST(FFmpegProbeParsing, takesNumbersAsJSONNumbersOrWholeTexts) {
    EXPECT_EQ(FFmpegDecoder::number(json(2)), 2.0);
    EXPECT_EQ(FFmpegDecoder::number(json("44100")), 44100.0);
    EXPECT_EQ(FFmpegDecoder::number(json("1.5")), 1.5);
    EXPECT_EQ(FFmpegDecoder::number(json("12abc")), std::nullopt);
    EXPECT_EQ(FFmpegDecoder::number(json("")), std::nullopt);
    EXPECT_EQ(FFmpegDecoder::number(json(nullptr)), std::nullopt);
    EXPECT_EQ(FFmpegDecoder::number(json::array()), std::nullopt);
}

TEST(FFmpegProbeParsing, buildsTheInfoOfAStream) {
    const json stream = {{"codec_name", "flac"},   {"sample_rate", "44100"},      {"channels", "2"},
                         {"sample_fmt", "s32"},    {"bits_per_raw_sample", "24"}, {"duration_ts", 88200},
                         {"time_base", "1/44100"}, {"duration", "1.9"},           {"bit_rate", "700499"}};
    const json format = {{"format_name", "flac"}, {"size", "123456"}, {"duration", "7"}};
    const AudioFileInfo info = FFmpegDecoder::makeInfo("/music/a.flac", stream, format);
    EXPECT_EQ(info.url, std::filesystem::path("/music/a.flac"));
    EXPECT_EQ(info.containerName, "FLAC");
    EXPECT_EQ(info.codecName, "FLAC");
    EXPECT_EQ(info.sampleRate, 44100);
    EXPECT_EQ(info.channelCount, 2);
    EXPECT_EQ(info.bitDepth, 24);
    EXPECT_FALSE(info.isFloat);
    EXPECT_EQ(info.bitRateKbps, 700);
    EXPECT_EQ(info.frameCount, 88200); // from duration_ts and time_base, not the rounder "duration"
    EXPECT_EQ(info.fileSize, 123456);
    EXPECT_FALSE(info.isLossy);
    EXPECT_EQ(info.nativeExportFormat, ExportFormat::flac);
    EXPECT_EQ(info.decoderName, "ffmpeg");
}

TEST(FFmpegProbeParsing, handlesTheAwkwardCases) {
    // A zero time base leaves the duration as read; lossy streams carry no bit depth.
    const json aac = {{"codec_name", "aac"},   {"sample_rate", 48000},  {"channels", 1},
                      {"duration", "2.5"},     {"duration_ts", 120000}, {"time_base", "1/0"},
                      {"bits_per_sample", 16}, {"sample_fmt", "fltp"}};
    const AudioFileInfo lossy = FFmpegDecoder::makeInfo("x.m4a", aac, json::object());
    EXPECT_EQ(lossy.frameCount, 120000);
    EXPECT_EQ(lossy.bitDepth, std::nullopt);
    EXPECT_FALSE(lossy.isFloat);
    EXPECT_TRUE(lossy.isLossy);
    EXPECT_EQ(lossy.bitRateKbps, std::nullopt);
    EXPECT_EQ(lossy.containerName, "");

    // Float PCM; the format's duration stands in for a missing stream duration; PCM has no bit rate.
    const json pcm = {{"codec_name", "pcm_f32le"},
                      {"sample_rate", "48000"},
                      {"channels", 2},
                      {"bits_per_sample", 32},
                      {"bit_rate", "3072000"}};
    const AudioFileInfo floats =
        FFmpegDecoder::makeInfo("x.wav", pcm, {{"duration", "0.5"}, {"format_name", "wav"}});
    EXPECT_TRUE(floats.isFloat);
    EXPECT_EQ(floats.bitDepth, 32);
    EXPECT_EQ(floats.frameCount, 24000);
    EXPECT_EQ(floats.bitRateKbps, std::nullopt);
    EXPECT_EQ(floats.nativeExportFormat, ExportFormat::wav);
    EXPECT_EQ(floats.codecName, "Linear PCM");

    // What ffprobe says of random bytes named .mp3: a stream with no channels.
    const json empty = {{"codec_name", "mp3"}, {"sample_rate", "44100"}, {"channels", 0}};
    for (const json& bad :
         {empty, json{{"codec_name", "mp3"}, {"channels", 2}}, json{{"sample_rate", "0"}, {"channels", 2}},
          json{{"sample_rate", "8000"}, {"channels", 100000}},
          json{{"sample_rate", "x"}, {"channels", "2"}}}) {
        try {
            FFmpegDecoder::makeInfo("x.mp3", bad, json::object());
            ADD_FAILURE() << bad.dump();
        } catch (const HarluneError& error) {
            EXPECT_EQ(error,
                      HarluneError::unsupportedFormat("ffprobe reported no sample rate / channel count"));
        }
    }
}

TEST(FFmpegCommandLines, passTheFileAsOneAbsoluteArgumentThatCannotPassForAnOption) {
    const auto probe = FFmpegDecoder::probeArguments("/a b/-x.wav");
    EXPECT_EQ(probe, (std::vector<std::string>{"-v", "error", "-select_streams", "a:0", "-show_streams",
                                               "-show_format", "-of", "json", "--", "file:/a b/-x.wav"}));
    const auto stream = FFmpegDecoder::streamArguments("/x.wav", 2, 44099.6);
    EXPECT_EQ(stream, (std::vector<std::string>{"-nostdin",  "-hide_banner",
                                                "-v",        "error",
                                                "-i",        "file:/x.wav",
                                                "-vn",       "-map",
                                                "0:a:0",     "-ac",
                                                "2",         "-ar",
                                                "44100",     "-f",
                                                "f32le",     "-acodec",
                                                "pcm_f32le", "-flush_packets",
                                                "0",         "-"}));
    const std::string relative = FFmpegDecoder::toolInput("-leading dash.wav");
    EXPECT_EQ(relative, "file:" + (std::filesystem::current_path() / "-leading dash.wav").string());
}

TEST(FFmpegMessages, readAsTheUserWouldSayThem) {
    const std::filesystem::path file = "/music/take: one.wav";
    const std::pair<std::string, std::string> cases[] = {
        {"file:/music/take: one.wav: Invalid data found when processing input.",
         "invalid data found when processing input"},
        {"[mov,mp4,m4a,3gp,3g2,mj2 @ 0x55d0c1a2b3c0] moov atom not found\n"
         "file:/music/take: one.wav: Invalid data found when processing input",
         "moov atom not found; invalid data found when processing input"},
        {"[mp3float @ 0x5600] [in#0 @ 0x5601] Header missing\r\n[mp3float @ 0x5600] Header missing\n  \n"
         "Error while decoding stream #0:0: Invalid data found when processing input",
         "header missing; error while decoding stream #0:0: Invalid data found when processing input"},
        {"one\ntwo\nthree\nfour\nfive", "one; two; five"},
        {"Error opening file:/music/take: one.wav.", "error opening take: one.wav"},
        {"EOF reached; [not @ an address] stays", "EOF reached; [not @ an address] stays"},
        {"  \n ", ""},
    };
    for (const auto& [stderrText, message] : cases)
        EXPECT_EQ(FFmpegDecoder::toolMessage(stderrText, file), message) << stderrText;
}

} // namespace
} // namespace harlune
