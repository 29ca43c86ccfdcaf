// harlune-cli play's command line. Playing itself needs a sound server and is tested end to end
// by tests/engine/e2e-pipewire.sh; everything here fails before a device is opened.
#include "io/IoTestSupport.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::TempDir;

struct CliResult {
    int status;
    std::string err;
};

CliResult play(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "play");
    const auto result = Subprocess::run(HARLUNE_CLI_PATH, std::move(arguments));
    return {result.status, result.stderrText};
}

TEST(PlayCommand, BadUsageExitsWithTwoAndTheUsage) {
    const TempDir folder;
    const std::string tone = (folder / "tone.wav").string();
    testing::ffmpeg({"-f", "lavfi", "-i", "sine=frequency=440:sample_rate=8000", "-t", "1", tone});

    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {},
             {tone, "--start"},
             {tone, "--start", "abc"},
             {tone, "--start", "-1"},
             {tone, "--start", "1.5"}, // the file lasts 1 s
             {tone, "--bounce"},
             {tone, tone},
         }) {
        const CliResult result = play(arguments);
        EXPECT_EQ(result.status, 2) << result.err;
        EXPECT_NE(result.err.find("usage: harlune-cli play FILE [--loop] [--start SECONDS]"),
                  std::string::npos)
            << result.err;
    }
}

TEST(PlayCommand, UnreadableFileIsAnErrorWithOne) {
    const TempDir folder;
    const CliResult result = play({(folder / "missing.wav").string()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err.rfind("harlune-cli: ", 0), 0u) << result.err;
}

} // namespace
} // namespace harlune
