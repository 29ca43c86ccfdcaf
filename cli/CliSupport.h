#pragma once

#include <cstdio>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace harlune::cli {

/// Exit codes shared by every subcommand.
inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1; ///< the work failed: the error's text was printed
inline constexpr int exitUsage = 2;   ///< the command line was wrong: the usage was printed

/// Thrown by argument parsing; the dispatcher prints the message and the subcommand's usage.
struct UsageError {
    std::string message;
};

/// One subcommand: its name, a one-line summary, its usage text and its entry point, which gets
/// the arguments after the subcommand's name.
struct Command {
    std::string_view name;
    std::string_view summary;
    std::string_view usage;
    std::function<int(std::span<const std::string>)> run;
};

/// "harlune-cli: " followed by the text, on standard error.
void printError(std::string_view text);

/// Prints a progress bar on standard error when it is a terminal; does nothing otherwise.
class ProgressBar {
public:
    explicit ProgressBar(std::string label);
    ~ProgressBar();
    /// `fraction` in 0...1. Always answers true (the command line cancels by signal).
    bool update(double fraction);

private:
    std::string label_;
    bool enabled_;
    int lastShown_ = -1;
};

} // namespace harlune::cli
