// harlune-cli convert, run as a user runs it; the files it writes are checked by the real ffmpeg.
#include "cli/CliTestSupport.h"
#include "io/IoTestSupport.h"

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

std::string probe(const std::filesystem::path& file, const std::string& field) {
    const auto result = Subprocess::run(
        testing::systemFFprobe, {"-v", "error", "-select_streams", "a:0", "-show_entries", "stream=" + field,
                                 "-of", "default=nw=1:nk=1", "file:" + file.string()});
    std::string text(result.stdoutData.begin(), result.stdoutData.end());
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

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
    EXPECT_EQ(probe(file("copy.flac"), "codec_name"), "flac");
    EXPECT_EQ(probe(file("copy.flac"), "bits_per_raw_sample"), "24");
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
    EXPECT_EQ(probe(file("lossless.m4a"), "codec_name"), "alac");

    const CliResult wav = cli({"convert", "--bits", "16", "--dither", "none", "--rate", "48000",
                               file("tone.wav"), file("plain.wav")});
    ASSERT_EQ(wav.status, 0) << wav.err;
    EXPECT_EQ(wav.out, "");
    EXPECT_EQ(probe(file("plain.wav"), "codec_name"), "pcm_s16le");

    const CliResult mp3 =
        cli({"convert", "--bitrate", "500", "--bits", "16", file("tone.wav"), file("lossy.mp3")});
    if (mp3.status == 0) {
        EXPECT_EQ(mp3.out, "bit depth: does not apply to MP3\nbit rate: 320 kbps (500 kbps asked)\n");
        EXPECT_EQ(probe(file("lossy.mp3"), "bit_rate"), "320000");
    }
}

TEST_F(ConvertCommand, BadCommandLinesPrintTheUsageAndFailuresTheError) {
    const CliResult noFormat = cli({"convert", file("tone.wav"), file("out.xyz")});
    EXPECT_EQ(noFormat.status, 2);
    EXPECT_NE(noFormat.err.find("use --format"), std::string::npos) << noFormat.err;
    EXPECT_NE(noFormat.err.find("usage: harlune-cli convert"), std::string::npos);

    EXPECT_EQ(cli({"convert", "--bits", "20", file("tone.wav"), file("o.wav")}).status, 2);
    EXPECT_EQ(cli({"convert", "--dither", "loud", file("tone.wav"), file("o.wav")}).status, 2);
    EXPECT_EQ(cli({"convert", "--bitrate", "-5", file("tone.wav"), file("o.mp3")}).status, 2);
    EXPECT_EQ(cli({"convert", file("tone.wav")}).status, 2);

    const CliResult missing = cli({"convert", file("absent.wav"), file("o.wav")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(missing.err.starts_with("harlune-cli: Couldn\u2019t read the audio: ")) << missing.err;
    EXPECT_FALSE(std::filesystem::exists(file("o.wav")));
}

// The files in `folder` that stand open in process `pid` (readlink of its descriptors), with their
// sizes: the temporary being written, named or not.
std::vector<std::pair<std::string, int64_t>> openFilesIn(pid_t pid, const std::filesystem::path& folder) {
    std::vector<std::pair<std::string, int64_t>> files;
    std::error_code error;
    const std::filesystem::path descriptors = "/proc/" + std::to_string(pid) + "/fd";
    for (const auto& entry : std::filesystem::directory_iterator(descriptors, error)) {
        const auto target = std::filesystem::read_symlink(entry.path(), error).string();
        struct stat info {};
        if (!error && target.starts_with(folder.string() + "/") && ::stat(entry.path().c_str(), &info) == 0)
            files.emplace_back(target, info.st_size);
    }
    return files;
}

std::vector<std::string> hiddenFiles(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().filename().string().starts_with("."))
            names.push_back(entry.path().filename().string());
    return names;
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
        bool underWay = false;
        for (int i = 0; i < 200000 && !underWay; ++i) {
            for (const auto& [path, size] : openFilesIn(pid, folder.path()))
                underWay = underWay || (path.find("long.wav") == std::string::npos && size > (1 << 20));
            if (!underWay)
                ::usleep(100);
        }
        ASSERT_TRUE(underWay) << "the write never got under way";
        ASSERT_EQ(::kill(pid, SIGKILL), 0);
        writer.waitForExit();

        EXPECT_EQ(testing::readFile(file("out.flac")), old);
        std::string mark = ".";
        mark.append(std::to_string(pid)).append(".tmp.flac");
        const auto left = hiddenFiles(folder.path());
        if (named) {
            ASSERT_EQ(left.size(), 1u); // it was seen under way
            for (const auto& name : left)
                EXPECT_NE(name.find(mark), std::string::npos) << name;
        } else {
            EXPECT_TRUE(left.empty()) << left.front();
        }
        const CliResult next = cli({"convert", file("tone.wav"), file("next.wav")});
        ASSERT_EQ(next.status, 0) << next.err;
        EXPECT_TRUE(hiddenFiles(folder.path()).empty());
    }
}

} // namespace
} // namespace harlune
