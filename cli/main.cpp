// harlune-cli: headless work on audio files with the same kit as the editor.
#include "CliSupport.h"
#include "Commands.h"

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace {

using harlune::cli::Command;

std::vector<Command> allCommands() {
    return {harlune::cli::infoCommand(),         harlune::cli::convertCommand(),
            harlune::cli::loudnessCommand(),     harlune::cli::playCommand(),
            harlune::cli::processCommand(),      harlune::cli::normalizeCommand(),
            harlune::cli::effectsCommand(),      harlune::cli::tempoCommand(),
            harlune::cli::noiseProfileCommand(), harlune::cli::recordCommand()};
}

void printUsage(std::FILE* stream, const std::vector<Command>& commands) {
    std::fprintf(stream, "usage: harlune-cli COMMAND [OPTIONS]\n\ncommands:\n");
    for (const auto& command : commands)
        std::fprintf(stream, "  %-10.*s %.*s\n", static_cast<int>(command.name.size()), command.name.data(),
                     static_cast<int>(command.summary.size()), command.summary.data());
    std::fprintf(stream,
                 "\n\"harlune-cli COMMAND --help\" shows a command's options. Write -- before a file\n"
                 "name that begins with a dash.\n");
}

void printCommandUsage(std::FILE* stream, const Command& command) {
    std::fprintf(stream, "usage: %.*s\n", static_cast<int>(command.usage.size()), command.usage.data());
}

const Command* find(const std::vector<Command>& commands, const std::string& name) {
    for (const auto& command : commands)
        if (command.name == name)
            return &command;
    return nullptr;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<Command> commands = allCommands();
    if (argc < 2) {
        printUsage(stderr, commands);
        return harlune::cli::exitUsage;
    }
    const std::string name = argv[1];
    const std::vector<std::string> arguments(argv + 2, argv + argc);
    if (name == "--help" || name == "-h" || name == "help") {
        // "help COMMAND" is that command's usage.
        const Command* command = arguments.empty() ? nullptr : find(commands, arguments.front());
        if (command)
            printCommandUsage(stdout, *command);
        else
            printUsage(stdout, commands);
        return harlune::cli::exitSuccess;
    }
    const Command* command = find(commands, name);
    if (!command) {
        harlune::cli::printError("unknown command \u2018" + name + "\u2019");
        printUsage(stderr, commands);
        return harlune::cli::exitUsage;
    }
    if (harlune::cli::asksForHelp(arguments)) {
        printCommandUsage(stdout, *command);
        return harlune::cli::exitSuccess;
    }
    try {
        return command->run(arguments);
    } catch (const harlune::cli::UsageError& error) {
        harlune::cli::printError(error.message);
        printCommandUsage(stderr, *command);
        return harlune::cli::exitUsage;
    } catch (const std::exception& error) {
        harlune::cli::printError(error.what());
        return harlune::cli::exitFailure;
    }
}
