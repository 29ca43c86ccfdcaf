#pragma once

#include "io/IoTestSupport.h"
#include "io/Subprocess.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace harlune::testing {

/// What a run of the built harlune-cli left: its exit status and both streams.
struct CliResult {
    int status;
    std::string out;
    std::string err;
};

/// Runs the built harlune-cli (HARLUNE_CLI_PATH) with `arguments`, as a user would.
inline CliResult cli(std::vector<std::string> arguments) {
    const auto result = Subprocess::run(HARLUNE_CLI_PATH, std::move(arguments));
    return {result.status, std::string(result.stdoutData.begin(), result.stdoutData.end()),
            result.stderrText};
}

/// A fixture whose input files are made once for the whole suite (in its SetUpTestSuite, after
/// `makeFolder()`), in a temporary folder removed when the suite ends.
template <class Suite> class SharedFolderTest : public ::testing::Test {
protected:
    static void makeFolder() { folder = std::make_unique<TempDir>(); }
    static void TearDownTestSuite() { folder.reset(); }
    static std::string file(const std::string& name) { return (*folder / name).string(); }
    static inline std::unique_ptr<TempDir> folder;
};

} // namespace harlune::testing
