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

/// True when the arguments ask for help: "--help" or "-h" before any "--".
bool asksForHelp(std::span<const std::string> arguments);

/// Walks a subcommand's arguments in order. An argument that begins with "-" is an option (a lone
/// "-" is not); "--" ends the options, so that everything after it is an operand, whatever it
/// begins with. An option's value is taken as it stands, so "--gain -6" works.
class ArgumentReader {
public:
    explicit ArgumentReader(std::span<const std::string> arguments) : arguments_(arguments) {}

    /// Moves to the next argument that is not the "--" mark; false at the end.
    bool next();
    /// The argument `next` moved to (still the option after its `value` was taken).
    const std::string& current() const { return arguments_[currentIndex_]; }
    bool isOption() const { return isOption_; }
    /// The argument after the current option, as its value; `UsageError` when there is none.
    const std::string& value();
    /// Takes the next argument when it is the option `flag`, before any "--".
    bool takeFlag(std::string_view flag);
    /// The error for the current option when no option of the command has its name.
    UsageError unknownOption() const;

private:
    std::span<const std::string> arguments_;
    size_t index_ = 0; ///< the last argument taken
    size_t currentIndex_ = 0;
    bool started_ = false;
    bool optionsEnded_ = false;
    bool isOption_ = false;
};

/// "unknown option NAME"; when a file of that name exists, it tells how to open it.
UsageError unknownOption(const std::string& name);

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
