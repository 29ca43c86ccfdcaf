// harlune-cli info, run as a user runs it, on files made by the real ffmpeg.
#include "cli/CliTestSupport.h"
#include "io/IoTestSupport.h"

#include <cmath>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

using nlohmann::json;
using testing::TempDir;

using testing::cli;
using testing::CliResult;

class InfoCommand : public testing::SharedFolderTest<InfoCommand> {
protected:
    static void SetUpTestSuite() {
        makeFolder();
        auto tone = testing::stereoSource(1.0);
        tone.insert(tone.end(), {"-c:a", "pcm_s24le", file("tone.wav")});
        testing::ffmpeg(tone);
        testing::ffmpeg({"-f", "lavfi", "-i", "anullsrc=r=44100:cl=mono", "-t", "0.5", "-c:a", "pcm_s16le",
                         file("silence.wav")});
    }
};

TEST_F(InfoCommand, describesAFileInJSONWithTheFieldNames) {
    const CliResult result = cli({"info", "--json", file("tone.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const json info = json::parse(result.out);
    EXPECT_EQ(info["path"], file("tone.wav"));
    EXPECT_EQ(info["url"], "file://" + file("tone.wav"));
    EXPECT_EQ(info["containerName"], "WAVE");
    EXPECT_EQ(info["codecName"], "Linear PCM");
    EXPECT_EQ(info["sampleRate"], 48000.0);
    EXPECT_EQ(info["channelCount"], 2);
    EXPECT_EQ(info["bitDepth"], 24);
    EXPECT_EQ(info["isFloat"], false);
    EXPECT_TRUE(info["bitRateKbps"].is_null());
    EXPECT_EQ(info["frameCount"], 48000);
    EXPECT_EQ(info["duration"], 1.0);
    EXPECT_EQ(info["fileSize"], std::filesystem::file_size(file("tone.wav")));
    EXPECT_EQ(info["isLossy"], false);
    EXPECT_EQ(info["nativeExportFormat"], "wav");
    EXPECT_EQ(info["decoderName"], "libsndfile");
    EXPECT_FALSE(info.contains("decodedFrames"));
}

TEST_F(InfoCommand, decodesSeveralFilesIntoAnArrayWithLevelsPastAnUnreadableOne) {
    // One unreadable file does not hide the others; the exit status tells of it.
    const CliResult result =
        cli({"info", "--decode", "--json", file("tone.wav"), file("missing.wav"), file("silence.wav")});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.err.starts_with("harlune-cli: " + file("missing.wav") + ": ")) << result.err;
    const json reports = json::parse(result.out);
    ASSERT_TRUE(reports.is_array());
    ASSERT_EQ(reports.size(), 2u);

    const auto reference = testing::referenceDecode(file("tone.wav"), 2);
    for (size_t c = 0; c < 2; ++c) {
        double peak = 0;
        double energy = 0;
        for (const float x : reference[c]) {
            peak = std::max(peak, std::abs(static_cast<double>(x)));
            energy += static_cast<double>(x) * x;
        }
        const double rms = std::sqrt(energy / static_cast<double>(reference[c].size()));
        EXPECT_NEAR(reports[0]["peakDBFS"][c].get<double>(), 20 * std::log10(peak), 1e-4);
        EXPECT_NEAR(reports[0]["rmsDBFS"][c].get<double>(), 20 * std::log10(rms), 1e-3);
    }
    EXPECT_EQ(reports[0]["decodedFrames"], 48000);
    EXPECT_EQ(reports[1]["decodedFrames"], 22050);
    EXPECT_EQ(reports[1]["sampleRate"], 44100.0);
    EXPECT_EQ(reports[1]["peakDBFS"], json::array({nullptr})); // silence: negative infinity
    EXPECT_EQ(reports[1]["rmsDBFS"], json::array({nullptr}));
}

TEST_F(InfoCommand, printsReadableText) {
    const CliResult result = cli({"info", "--decode", file("silence.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("  decoder:        libsndfile\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("  decoded frames: 22050\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("peak -inf dBFS, RMS -inf dBFS"), std::string::npos) << result.out;
    EXPECT_EQ(result.err, ""); // no progress bar when standard error is no terminal
}

TEST_F(InfoCommand, theDemoStillWorks) {
    const CliResult result = cli({"info", "--demo"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.starts_with("demo sound\n"));
}

} // namespace
} // namespace harlune
