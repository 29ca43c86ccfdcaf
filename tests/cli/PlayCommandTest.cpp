// harlune-cli play's command line. Playing itself needs a sound server and is tested end to end
// by tests/engine/e2e-pipewire.sh; everything here fails before a device is opened.
#include "cli/CliTestSupport.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::TempDir;

testing::CliResult play(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "play");
    return testing::cli(std::move(arguments));
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
        const auto result = play(arguments);
        EXPECT_EQ(result.status, 2) << result.err;
        EXPECT_NE(result.err.find("usage: harlune-cli play FILE [--loop] [--start SECONDS]"),
                  std::string::npos)
            << result.err;
    }
}

TEST(PlayCommand, UnreadableFileIsAnErrorWithOne) {
    const TempDir folder;
    const auto result = play({(folder / "missing.wav").string()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err.rfind("harlune-cli: ", 0), 0u) << result.err;
}

} // namespace
} // namespace harlune
