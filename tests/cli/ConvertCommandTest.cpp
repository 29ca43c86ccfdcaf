// harlune-cli convert, run as a user runs it; the files it writes are checked by the real ffmpeg.
#include "cli/CliTestSupport.h"
#include "io/EncodeTestSupport.h"
#include "io/IoTestSupport.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

// The size of the largest file under `folder` (but `except`) that process `pid` holds open: the
// temporary being written, named or not.
int64_t largestOpenFile(pid_t pid, const std::filesystem::path& folder, const std::string& except) {
    int64_t largest = 0;
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
        const auto target = std::filesystem::read_symlink(entry.path(), error).string();
        struct stat info {};
        if (!error && target.starts_with(folder.string()) && target.find(except) == std::string::npos &&
            ::stat(entry.path().c_str(), &info) == 0)
            largest = std::max<int64_t>(largest, info.st_size);
    }
    return largest;
}

// A writer killed at any moment: the old file stays, and what it leaves (nothing with unnamed
// temporaries; at most one named temporary carrying its process id otherwise) goes at the next
// write into the folder.
TEST_F(ConvertCommand, AKilledWriteLeavesTheOldFileAndNoLastingTrace) {
    auto longTone = testing::stereoSource(120.0);
    longTone.insert(longTone.end(), {"-c:a", "pcm_s24le", file("long.wav")});
    testing::ffmpeg(longTone);
    for (const bool named : {false, true}) {
        SCOPED_TRACE(named ? "named temporaries" : "unnamed temporaries");
        const std::string old = "the old file";
        testing::writeFile(file("out.flac"), old);
        if (named)
            ::setenv("HARLUNE_TEMPORARY_FILES", "named", 1);
        Subprocess writer(HARLUNE_CLI_PATH, {"convert", file("long.wav"), file("out.flac")});
        writer.start();
        ::unsetenv("HARLUNE_TEMPORARY_FILES");
        const pid_t pid = writer.processIdentifier();
        // Kill once the temporary holds data, well before the end.
        int tries = 0;
        while (largestOpenFile(pid, folder.path(), "long.wav") < (1 << 20) && ++tries < 200000)
            ::usleep(100);
        ASSERT_LT(tries, 200000) << "the write never got under way";
        ASSERT_EQ(::kill(pid, SIGKILL), 0);
        writer.waitForExit();

        EXPECT_EQ(testing::readFile(file("out.flac")), old);
        std::string mark = ".";
        mark.append(std::to_string(pid)).append(".tmp.flac");
        // Besides the two files, one temporary of the killed writer when it was named (it was seen
        // under way), none otherwise.
        const auto left = folder.entries();
        EXPECT_EQ(left.size(), named ? 4u : 3u);
        EXPECT_EQ(std::count_if(left.begin(), left.end(),
                                [&](const std::string& name) { return name.ends_with(mark); }),
                  named ? 1 : 0);
        const CliResult next = cli({"convert", file("tone.wav"), file("next.wav")});
        ASSERT_EQ(next.status, 0) << next.err;
        EXPECT_EQ(folder.entries().size(), 4u); // tone.wav, long.wav, out.flac, next.wav
        std::filesystem::remove(file("next.wav"));
    }
}

} // namespace
} // namespace harlune
