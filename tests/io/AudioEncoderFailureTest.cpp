// A failed, cancelled or killed export leaves the destination as it was and nothing behind.
#include "EncodeTestSupport.h"
#include "base/HarluneError.h"
#include "io/AudioEncoder.h"
#include "support/TestAudio.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace harlune {
namespace {

const std::string oldContent = "the old file, which must survive";

EncodeSettings wav24() {
    return EncodeSettings::defaults(ExportFormat::wav);
}

std::string contentOf(const std::filesystem::path& path) {
    const auto bytes = testing::readBytes(path);
    return {bytes.begin(), bytes.end()};
}

// Runs the body and gives the HarluneError it threw.
template <class Body> std::optional<HarluneError> errorFrom(Body&& body) {
    try {
        body();
    } catch (const HarluneError& error) {
        return error;
    }
    return std::nullopt;
}

TEST(AudioEncoderFailure, AReadOnlyFolderFailsAndLeavesTheOldFile) {
    testing::ScratchMount mount("size=1m,mode=0755");
    if (!mount.mounted())
        GTEST_SKIP() << "mounting is not permitted here";
    const auto destination = mount / "old.wav";
    testing::writeBytes(destination, oldContent);
    ASSERT_TRUE(mount.remountReadOnly());
    const ArraySource source(testing::noisePlanes(2, 48000), 48000);
    const auto error = errorFrom([&] { AudioEncoder::write(source, std::nullopt, destination, wav24()); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), HarluneError::Kind::encodeFailed);
    EXPECT_TRUE(error->detail().starts_with("can\u2019t create .old-")) << error->detail();
    EXPECT_TRUE(error->detail().ends_with(".tmp.wav: Read-only file system")) << error->detail();
    EXPECT_EQ(contentOf(destination), oldContent);
    EXPECT_EQ(mount.entries(), std::vector<std::string>{"old.wav"});
}

TEST(AudioEncoderFailure, AFullDiskFailsAndLeavesTheOldFile) {
    testing::ScratchMount mount("size=64k");
    if (!mount.mounted())
        GTEST_SKIP() << "mounting is not permitted here";
    const ArraySource source(testing::noisePlanes(2, 48000 * 5), 48000);
    for (const auto format : allExportFormats()) {
        if (!AudioEncoder::isAvailable(format))
            continue;
        const auto destination = mount / ("old." + std::string(fileExtension(format)));
        testing::writeBytes(destination, oldContent);
        const auto error = errorFrom([&] {
            AudioEncoder::write(source, std::nullopt, destination, EncodeSettings::defaults(format));
        });
        ASSERT_TRUE(error) << rawValue(format);
        EXPECT_EQ(error->kind(), HarluneError::Kind::encodeFailed);
        EXPECT_NE(error->detail().find("No space left on device"), std::string::npos) << error->detail();
        EXPECT_EQ(contentOf(destination), oldContent);
        EXPECT_EQ(mount.entries().size(), 1u) << rawValue(format);
        std::filesystem::remove(destination);
    }
}

TEST(AudioEncoderFailure, AnEmptyRangeFailsBeforeAnythingIsWritten) {
    testing::TemporaryFolder folder;
    const ArraySource source(testing::noisePlanes(1, 100), 48000);
    const auto error = errorFrom([&] {
        AudioEncoder::write(source, FrameRange{10, 10}, folder / "x.wav", wav24());
    });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->detail(), "there\u2019s no audio to export (the range is empty)");
    EXPECT_TRUE(folder.entries().empty());
}

TEST(AudioEncoderFailure, CancellingLeavesTheOldFileAndNoTemporaryFile) {
    testing::TemporaryFolder folder;
    const auto destination = folder / "old.flac";
    testing::writeBytes(destination, oldContent);
    const ArraySource source(testing::noisePlanes(2, 200000), 48000);
    int calls = 0;
    const auto error = errorFrom([&] {
        AudioEncoder::write(source, std::nullopt, destination, EncodeSettings::defaults(ExportFormat::flac),
                            [&](double) { return ++calls < 3; });
    });
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->isCancelled());
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(contentOf(destination), oldContent);
    EXPECT_EQ(folder.entries(), std::vector<std::string>{"old.flac"});
}

TEST(AudioEncoderFailure, ARateChangeGoesThroughTheConverter) {
    // Opus takes 48 kHz only, so a 44.1 kHz source is converted on the way.
    testing::TemporaryFolder folder;
    const ArraySource source(testing::noisePlanes(2, 44100), 44100);
    AudioEncoder::write(source, std::nullopt, folder / "x.opus",
                        EncodeSettings::defaults(ExportFormat::opus));
    EXPECT_EQ(testing::probeStream(folder / "x.opus", "sample_rate"), "48000");
    EncodeSettings wav = EncodeSettings::defaults(ExportFormat::wav);
    wav.sampleRate = 22050;
    AudioEncoder::write(source, std::nullopt, folder / "x.wav", wav);
    const auto planes = testing::decodeWithFFmpeg(folder / "x.wav", 2);
    ASSERT_TRUE(planes);
    EXPECT_EQ(planes->front().size(), 22050u);
}

TEST(AudioEncoderFailure, KillingTheProcessMidWriteLeavesTheOldFile) {
    testing::TemporaryFolder folder;
    const auto destination = folder / "old.wav";
    testing::writeBytes(destination, oldContent);
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ready[0]);
        const ArraySource source(testing::noisePlanes(2, 48000 * 10), 48000);
        AudioEncoder::write(source, std::nullopt, destination, wav24(), [&](double) {
            // Half the file is written: tell the parent, and wait for the end.
            const char byte = 1;
            (void)!::write(ready[1], &byte, 1);
            ::pause();
            return true;
        });
        ::_exit(0);
    }
    ::close(ready[1]);
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(contentOf(destination), oldContent);
    // The half-written file is hidden beside it.
    const auto entries = folder.entries();
    EXPECT_EQ(entries.size(), 2u);
    for (const auto& name : entries)
        EXPECT_TRUE(name == "old.wav" || (name.starts_with(".old-") && name.ends_with(".tmp.wav"))) << name;
}

TEST(AudioEncoderReplacement, TheNewFileKeepsTheOldModeAndOwner) {
    testing::TemporaryFolder folder;
    const auto destination = folder / "kept.wav";
    testing::writeBytes(destination, oldContent);
    ASSERT_EQ(::chmod(destination.c_str(), 0640), 0);
    const bool canGiveAway = ::geteuid() == 0 && ::chown(destination.c_str(), 4321, 4322) == 0;
    const ArraySource source(testing::noisePlanes(1, 1000), 48000);
    AudioEncoder::write(source, std::nullopt, destination, wav24());
    struct stat info {};
    ASSERT_EQ(::stat(destination.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    if (canGiveAway) {
        EXPECT_EQ(info.st_uid, 4321u);
        EXPECT_EQ(info.st_gid, 4322u);
    }
    EXPECT_NE(contentOf(destination), oldContent);
    EXPECT_EQ(folder.entries(), std::vector<std::string>{"kept.wav"});
}

TEST(AudioEncoderReplacement, ANewFileGetsTheUsualModeForTheUmask) {
    testing::TemporaryFolder folder;
    const mode_t mask = ::umask(022);
    const ArraySource source(testing::noisePlanes(1, 1000), 48000);
    AudioEncoder::write(source, std::nullopt, folder / "new.wav", wav24());
    ::umask(mask);
    struct stat info {};
    ASSERT_EQ(::stat((folder / "new.wav").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0644u);
}

} // namespace
} // namespace harlune
