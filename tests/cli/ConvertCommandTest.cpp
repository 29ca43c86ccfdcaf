// harlune-cli convert, run as a user runs it; the files it writes are checked by the real ffmpeg.
#include "cli/CliTestSupport.h"
#include "io/EncodeTestSupport.h"
#include "io/IoTestSupport.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::TempDir;

using testing::cli;
using testing::CliResult;

using testing::probeStream;

class ConvertCommand : public ::testing::Test {
protected:
    void SetUp() override {
        auto tone = testing::stereoSource(1.0);
        tone.insert(tone.end(), {"-c:a", "pcm_s24le", (folder / "tone.wav").string()});
        testing::ffmpeg(tone);
    }
    std::string file(const std::string& name) const { return (folder / name).string(); }
    TempDir folder;
};

TEST_F(ConvertCommand, TheFormatFollowsTheExtensionAndTheSamplesSurvive) {
    const CliResult result = cli({"convert", file("tone.wav"), file("copy.flac")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, ""); // nothing differed from what was asked
    EXPECT_EQ(probeStream(file("copy.flac"), "codec_name"), "flac");
    EXPECT_EQ(probeStream(file("copy.flac"), "bits_per_raw_sample"), "24");
    // 24-bit source to 24-bit FLAC: the dither of ±1 step is all that changes.
    const auto original = testing::referenceDecode(file("tone.wav"), 2);
    const auto copy = testing::referenceDecode(file("copy.flac"), 2);
    ASSERT_EQ(copy[1].size(), original[1].size());
    for (size_t c = 0; c < 2; ++c)
        for (size_t f = 0; f < original[c].size(); ++f)
            ASSERT_NEAR(copy[c][f], original[c][f], 1.5 / 8388608.0);
}

TEST_F(ConvertCommand, SettingsThatCannotBeHadAreReported) {
    const CliResult alac =
        cli({"convert", "--format", "alac", "--bits", "32", file("tone.wav"), file("lossless.m4a")});
    ASSERT_EQ(alac.status, 0) << alac.err;
    EXPECT_EQ(alac.out, "bit depth: 24-bit (32-bit asked)\n");
    EXPECT_EQ(probeStream(file("lossless.m4a"), "codec_name"), "alac");

    const CliResult wav = cli({"convert", "--bits", "16", "--dither", "none", "--rate", "48000",
                               file("tone.wav"), file("plain.wav")});
    ASSERT_EQ(wav.status, 0) << wav.err;
    EXPECT_EQ(wav.out, "");
    EXPECT_EQ(probeStream(file("plain.wav"), "codec_name"), "pcm_s16le");

    const CliResult mp3 =
        cli({"convert", "--bitrate", "500", "--bits", "16", file("tone.wav"), file("lossy.mp3")});
    if (mp3.status == 0) {
        EXPECT_EQ(mp3.out, "bit depth: does not apply to MP3\nbit rate: 320 kbps (500 kbps asked)\n");
        EXPECT_EQ(probeStream(file("lossy.mp3"), "bit_rate"), "320000");
    }
}

} // namespace
} // namespace harlune
