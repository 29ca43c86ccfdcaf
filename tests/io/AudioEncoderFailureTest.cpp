// A failed, cancelled or killed export leaves the destination as it was and nothing behind.
#include "EncodeTestSupport.h"
#include "base/HarluneError.h"
#include "io/AudioEncoder.h"
#include "io/FileReplacement.h"
#include "support/TestAudio.h"

#include <algorithm>
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
    testing::writeFile(destination, oldContent);
    ASSERT_TRUE(mount.remountReadOnly());
    const ArraySource source(testing::noisePlanes(2, 48000), 48000);
    const auto error = errorFrom([&] { AudioEncoder::write(source, std::nullopt, destination, wav24()); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), HarluneError::Kind::encodeFailed);
    EXPECT_TRUE(error->detail().starts_with("can\u2019t create .old-")) << error->detail();
    EXPECT_TRUE(error->detail().ends_with(".tmp.wav: Read-only file system")) << error->detail();
    EXPECT_EQ(testing::readFile(destination), oldContent);
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
        testing::writeFile(destination, oldContent);
        const auto error = errorFrom([&] {
            AudioEncoder::write(source, std::nullopt, destination, EncodeSettings::defaults(format));
        });
        ASSERT_TRUE(error) << rawValue(format);
        EXPECT_EQ(error->kind(), HarluneError::Kind::encodeFailed);
        EXPECT_NE(error->detail().find("No space left on device"), std::string::npos) << error->detail();
        EXPECT_EQ(testing::readFile(destination), oldContent);
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
    testing::writeFile(destination, oldContent);
    const ArraySource source(testing::noisePlanes(2, 200000), 48000);
    int calls = 0;
    const auto error = errorFrom([&] {
        AudioEncoder::write(source, std::nullopt, destination, EncodeSettings::defaults(ExportFormat::flac),
                            [&](double) { return ++calls < 3; });
    });
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->isCancelled());
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(testing::readFile(destination), oldContent);
    EXPECT_EQ(folder.entries(), std::vector<std::string>{"old.flac"});
}

// Either kind of temporary: the new file keeps the old one's mode and owner, or gets the usual
// mode for the umask, and nothing else is left in the folder.
TEST(AudioEncoderReplacement, TheNewFileKeepsTheOldModeAndOwnerOrTakesTheUmask) {
    const ArraySource source(testing::noisePlanes(1, 1000), 48000);
    for (const auto naming : {FileReplacement::Naming::automatic, FileReplacement::Naming::named}) {
        testing::TemporaryFolder folder;
        const auto destination = folder / "kept.wav";
        testing::writeFile(destination, oldContent);
        ASSERT_EQ(::chmod(destination.c_str(), 0640), 0);
        const bool canGiveAway = ::geteuid() == 0 && ::chown(destination.c_str(), 4321, 4322) == 0;
        const mode_t mask = ::umask(022);
        for (const auto& path : {destination, folder / "new.wav"}) {
            FileReplacement::TemporaryFile temporary(path, ExportFormat::wav, naming);
            EXPECT_EQ(temporary.isNamed(), folder.entries().size() == 2u);
            testing::writeFile(temporary.writePath(), "new");
            temporary.commit();
        }
        ::umask(mask);
        struct stat info {};
        ASSERT_EQ(::stat(destination.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0640u);
        if (canGiveAway) {
            EXPECT_EQ(info.st_uid, 4321u);
            EXPECT_EQ(info.st_gid, 4322u);
        }
        EXPECT_EQ(testing::readFile(destination), "new");
        ASSERT_EQ(::stat((folder / "new.wav").c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0644u);
        EXPECT_EQ(folder.entries().size(), 2u);
    }
}

// Named temporaries of writers that are gone are removed by the next temporary made in the folder;
// those of living processes, and other hidden files, stay.
TEST(AudioEncoderReplacement, TemporariesOfDeadWritersAreRemovedByTheNextWrite) {
    testing::TemporaryFolder folder;
    const pid_t dead = ::fork();
    ASSERT_GE(dead, 0);
    if (dead == 0)
        ::_exit(0);
    ::waitpid(dead, nullptr, 0);
    const std::string uuid = "0F8E1C52-3A4B-4C5D-8E6F-7A8B9C0D1E2F";
    const std::string deadName = ".song-" + uuid + "." + std::to_string(dead) + ".tmp.wav";
    const std::vector<std::string> kept = {
        ".song-" + uuid + "." + std::to_string(::getpid()) + ".tmp.wav", // our own
        ".song-" + uuid + ".1.tmp.flac",                                 // a living process
        ".song-" + uuid + ".tmp.wav",                                    // no process id
        ".notes-" + std::to_string(dead) + ".tmp.txt",                   // no UUID
        "song-" + uuid + "." + std::to_string(dead) + ".tmp.wav",        // not hidden
    };
    testing::writeFile(folder / deadName, "half");
    for (const auto& name : kept)
        testing::writeFile(folder / name, "keep");
    const ArraySource source(testing::noisePlanes(1, 1000), 48000);
    AudioEncoder::write(source, std::nullopt, folder / "next.wav", wav24());
    auto entries = folder.entries();
    std::sort(entries.begin(), entries.end());
    auto expected = kept;
    expected.push_back("next.wav");
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(entries, expected);
}

} // namespace
} // namespace harlune
