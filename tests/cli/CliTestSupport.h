#pragma once

#include "io/Subprocess.h"

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

} // namespace harlune::testing
