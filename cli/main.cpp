// harlune-cli: headless work on audio files with the same kit as the editor.
#include "CliSupport.h"
#include "Commands.h"
#include "base/HarluneError.h"

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace {

using harlune::cli::Command;

std::vector<Command> allCommands() {
    return {harlune::cli::infoCommand(), harlune::cli::convertCommand(), harlune::cli::loudnessCommand(),
            harlune::cli::playCommand(), harlune::cli::processCommand(), harlune::cli::normalizeCommand()};
}

void printUsage(const std::vector<Command>& commands) {
    std::fprintf(stderr, "usage: harlune-cli COMMAND [OPTIONS]\n\ncommands:\n");
    for (const auto& command : commands)
        std::fprintf(stderr, "  %-10.*s %.*s\n", static_cast<int>(command.name.size()), command.name.data(),
                     static_cast<int>(command.summary.size()), command.summary.data());
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<Command> commands = allCommands();
    if (argc < 2) {
        printUsage(commands);
        return harlune::cli::exitUsage;
    }
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        printUsage(commands);
        return harlune::cli::exitSuccess;
    }
    for (const auto& command : commands) {
        if (command.name != name)
            continue;
        const std::vector<std::string> arguments(argv + 2, argv + argc);
        try {
            return command.run(arguments);
        } catch (const harlune::cli::UsageError& error) {
            harlune::cli::printError(error.message);
            std::fprintf(stderr, "usage: %.*s\n", static_cast<int>(command.usage.size()),
                         command.usage.data());
            return harlune::cli::exitUsage;
        } catch (const harlune::HarluneError& error) {
            harlune::cli::printError(error.what());
            return harlune::cli::exitFailure;
        } catch (const std::exception& error) {
            harlune::cli::printError(error.what());
            return harlune::cli::exitFailure;
        }
    }
    harlune::cli::printError("unknown command \u2018" + name + "\u2019");
    printUsage(commands);
    return harlune::cli::exitUsage;
}
