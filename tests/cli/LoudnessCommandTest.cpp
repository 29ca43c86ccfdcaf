// harlune-cli loudness, run as a user runs it, on files made by the real ffmpeg; its figures are
// checked against the analyzer on ffmpeg's own decode and against ffmpeg's ebur128 filter.
#include "base/AudioSource.h"
#include "cli/CliTestSupport.h"
#include "dsp/LoudnessAnalyzer.h"
#include "io/IoTestSupport.h"

#include <cmath>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <optional>

namespace harlune {
namespace {

using nlohmann::json;
using testing::TempDir;

using testing::cli;
using testing::CliResult;

// The number after the first `label` in `text` (std::regex trips a false warning of g++ 12 under
// the sanitizers, so this reads it by hand).
std::optional<double> numberAfter(const std::string& text, const std::string& label) {
    const auto at = text.find(label);
    if (at == std::string::npos)
        return std::nullopt;
    try {
        return std::stod(text.substr(at + label.size()));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

class LoudnessCommand : public testing::SharedFolderTest<LoudnessCommand> {
protected:
    static void SetUpTestSuite() {
        makeFolder();
        // 997 Hz at -23 dBFS on both channels: -23 LUFS.
        testing::ffmpeg({"-f", "lavfi", "-i",
                         "aevalsrc=0.0707946*sin(2*PI*997*t)|0.0707946*sin(2*PI*997*t):s=48000:d=6", "-c:a",
                         "pcm_f32le", file("tone.wav")});
        auto music = testing::stereoSource(8);
        music.insert(music.end(), {"-c:a", "pcm_s16le", file("music.wav")});
        testing::ffmpeg(music);
        testing::ffmpeg({"-f", "lavfi", "-i", "anullsrc=r=44100:cl=mono", "-t", "0.3", "-c:a", "pcm_s16le",
                         file("silence.wav")});
    }
};

TEST_F(LoudnessCommand, reportsTheResultInJSONWithItsFieldNames) {
    const CliResult result = cli({"loudness", "--json", file("tone.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const json r = json::parse(result.out);
    EXPECT_NEAR(r["integratedLUFS"].get<double>(), -23, 0.01);
    EXPECT_NEAR(r["loudnessRangeLU"].get<double>(), 0, 0.01);
    EXPECT_NEAR(r["truePeakDBTP"].get<double>(), -23, 0.01);
    EXPECT_EQ(r["truePeakPerChannel"].size(), 2u);
    EXPECT_NEAR(r["samplePeakDBFS"].get<double>(), -23, 0.01);
    EXPECT_EQ(r["samplePeakPerChannel"].size(), 2u);
    EXPECT_NEAR(r["maxMomentaryLUFS"].get<double>(), -23, 0.01);
    EXPECT_NEAR(r["maxShortTermLUFS"].get<double>(), -23, 0.01);
    EXPECT_NEAR(r["rmsDBFS"].get<double>(), -26.01, 0.01);
    EXPECT_EQ(r["hopSeconds"], 0.1);
    EXPECT_FALSE(r.contains("momentary"));
    EXPECT_FALSE(r.contains("shortTerm"));

    const json withCurves = json::parse(cli({"loudness", "--curves", "--json", file("tone.wav")}).out);
    ASSERT_EQ(withCurves["momentary"].size(), 60u);
    ASSERT_EQ(withCurves["shortTerm"].size(), 60u);
    EXPECT_NEAR(withCurves["momentary"][59].get<double>(), -23, 0.01);
}

TEST_F(LoudnessCommand, agreesWithTheAnalyzerAndWithFFmpegsMeter) {
    const json r = json::parse(cli({"loudness", "--json", file("music.wav")}).out);
    const LoudnessResult expected =
        LoudnessAnalyzer::analyze(ArraySource(testing::referenceDecode(file("music.wav"), 2), 48000));
    EXPECT_NEAR(r["integratedLUFS"].get<double>(), expected.integratedLUFS, 1e-9);
    EXPECT_NEAR(r["truePeakDBTP"].get<double>(), expected.truePeakDBTP, 1e-9);
    EXPECT_NEAR(r["loudnessRangeLU"].get<double>(), expected.loudnessRangeLU, 1e-9);

    // ffmpeg's ebur128 filter prints its summary with one decimal.
    const auto meter =
        Subprocess::run(testing::systemFFmpeg, {"-nostdin", "-nostats", "-i", file("music.wav"), "-af",
                                                "ebur128=peak=true", "-f", "null", "-"});
    const auto at = meter.stderrText.rfind("Summary:");
    ASSERT_NE(at, std::string::npos) << meter.stderrText;
    const std::string summary = meter.stderrText.substr(at);
    const auto integrated = numberAfter(summary, "I:");
    ASSERT_TRUE(integrated) << summary;
    EXPECT_NEAR(r["integratedLUFS"].get<double>(), *integrated, 0.06);
    const auto peak = numberAfter(summary, "Peak:");
    ASSERT_TRUE(peak) << summary;
    EXPECT_NEAR(r["truePeakDBTP"].get<double>(), *peak, 0.3);
}

TEST_F(LoudnessCommand, printsTheFiguresAsThePanelShowsThem) {
    const CliResult result = cli({"loudness", file("tone.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("Integrated       -23.0 LUFS\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("Loudness range   0.0 LU\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("True peak        -23.0 dBTP\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("RMS              -26.0 dBFS\n"), std::string::npos) << result.out;
}

TEST_F(LoudnessCommand, silenceHasNoLevels) {
    const CliResult text = cli({"loudness", file("silence.wav")});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("Integrated       \u2014 LUFS\n"), std::string::npos) << text.out;
    const json r = json::parse(cli({"loudness", "--json", "--curves", file("silence.wav")}).out);
    EXPECT_TRUE(r["integratedLUFS"].is_null());
    EXPECT_TRUE(r["truePeakDBTP"].is_null());
    EXPECT_TRUE(r["truePeakPerChannel"][0].is_null());
    EXPECT_TRUE(r["rmsDBFS"].is_null());
    EXPECT_EQ(r["loudnessRangeLU"], 0.0);
    ASSERT_EQ(r["momentary"].size(), 3u);
    EXPECT_EQ(r["momentary"][0], -200.0);
}

} // namespace
} // namespace harlune
