// The child-process layer with small shell children: pipes, status, launch failures, and the
// bounded stop of a child that ignores SIGTERM while blocked on a full pipe.
#include "io/FFmpegTool.h"
#include "io/IoTestSupport.h"

#include <chrono>
#include <csignal>
#include <sys/wait.h>

namespace harlune {
namespace {

using namespace std::chrono_literals;
using testing::TempDir;

const std::filesystem::path shell = "/bin/sh";

Subprocess::RunResult sh(const std::string& script) {
    return Subprocess::run(shell, {"-c", script});
}

// True when this process has no child left unreaped.
bool noChildrenLeft() {
    int status = 0;
    return ::waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

TEST(Subprocess, passesArgumentsVerbatimWithoutAShell) {
    const std::string awkward = "a b 'c' \"d\" $HOME `x` ; | \n -e";
    const auto result = Subprocess::run("/usr/bin/printf", {"%s|%s", awkward, "-"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(std::string(result.stdoutData.begin(), result.stdoutData.end()), awkward + "|-");
}

TEST(Subprocess, separatesStandardOutputAndErrorAndReportsTheStatus) {
    const auto result = sh("printf out; printf '  \\n err \\n' >&2; exit 3");
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(std::string(result.stdoutData.begin(), result.stdoutData.end()), "out");
    EXPECT_EQ(result.stderrText, "err");
}

TEST(Subprocess, standardInputIsTheNullDevice) {
    const auto result = Subprocess::run("/bin/cat", {});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.stdoutData.empty());
}

TEST(Subprocess, aChildWritingMuchToStandardErrorDoesNotStall) {
    // 1 MB of standard error, far beyond a pipe's buffer, before any standard output.
    const auto result = sh("head -c 1000000 /dev/zero | tr '\\0' x >&2; echo done");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(std::string(result.stdoutData.begin(), result.stdoutData.end()), "done\n");
    EXPECT_EQ(result.stderrText.size(), 1000000u);
}

TEST(Subprocess, repairsBadUTF8InStandardError) {
    const auto result = sh("printf 'caf\\303\\251 \\377 end' >&2");
    EXPECT_EQ(result.stderrText, "caf\u00E9 \uFFFD end");
}

TEST(Subprocess, aSignalledChildReportsTheSignal) {
    EXPECT_EQ(sh("kill -9 $$").status, 9);
}

TEST(Subprocess, aMissingExecutableGivesALaunchError) {
    try {
        Subprocess::run("/nonexistent/tool-x", {});
        FAIL();
    } catch (const HarluneError& error) {
        EXPECT_EQ(error,
                  HarluneError::decodeFailed("couldn\u2019t launch tool-x: No such file or directory"));
    }
}

TEST(Subprocess, waitingOnAChildNeverStartedGivesMinusOne) {
    Subprocess child(shell, {"-c", "true"});
    EXPECT_EQ(child.waitForExit(), -1);
}

TEST(Subprocess, terminateEndsAChildBlockedOnAFullPipeThatIgnoresSIGTERM) {
    const auto begin = std::chrono::steady_clock::now();
    {
        Subprocess child(shell,
                         {"-c", "trap '' TERM; while :; do echo xxxxxxxxxxxxxxxxxxxxxxxxxxxxxx; done"});
        child.start();
        std::this_thread::sleep_for(200ms); // long enough to fill the pipe
        child.terminate();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
    EXPECT_TRUE(noChildrenLeft());
}

TEST(Subprocess, disposingOfARunningChildStopsItWithinBounds) {
    const auto begin = std::chrono::steady_clock::now();
    {
        // Ignores SIGTERM and never writes: only SIGKILL ends it.
        Subprocess child(shell, {"-c", "trap '' TERM; while :; do sleep 0.05; done"});
        child.start();
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
    EXPECT_TRUE(noChildrenLeft());
}

TEST(Subprocess, runStopsAChildThatOutlivesItsTimeout) {
    const auto begin = std::chrono::steady_clock::now();
    try {
        Subprocess::run(shell, {"-c", "sleep 30"}, 300ms);
        FAIL();
    } catch (const HarluneError& error) {
        EXPECT_EQ(error, HarluneError::decodeFailed("sh didn\u2019t finish in time"));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
    EXPECT_TRUE(noChildrenLeft());
}

TEST(FFmpegTool, findsExecutableFilesOnlyInTheReplacedList) {
    TempDir folder;
    std::filesystem::create_directories(folder / "a/ffmpeg"); // a directory is no match
    std::filesystem::create_directories(folder / "b");
    std::filesystem::create_directories(folder / "c");
    testing::writeFile(folder / "b/ffmpeg", "#!/bin/sh\n"); // not executable
    testing::writeFile(folder / "c/ffmpeg", "#!/bin/sh\n");
    std::filesystem::permissions(folder / "c/ffmpeg", std::filesystem::perms::owner_all);
    testing::ToolSearchGuard guard({"", folder / "a", folder / "b", folder / "c"});
    EXPECT_EQ(FFmpegTool::locate("ffmpeg"), folder / "c/ffmpeg");
    EXPECT_EQ(FFmpegTool::ffmpegURL(), folder / "c/ffmpeg");
    EXPECT_EQ(FFmpegTool::ffprobeURL(), std::nullopt);
}

TEST(FFmpegTool, theUsualListPutsTheFixedFoldersBeforePATH) {
    const auto directories = FFmpegTool::searchDirectories();
    ASSERT_GE(directories.size(), 3u);
    EXPECT_EQ(directories[0], "/opt/homebrew/bin");
    EXPECT_EQ(directories[1], "/usr/local/bin");
    EXPECT_EQ(directories[2], "/usr/bin");
    EXPECT_EQ(FFmpegTool::ffmpegURL(), testing::systemFFmpeg);
}

} // namespace
} // namespace harlune
