#include "CliSupport.h"
#include "Commands.h"
#include "EncodeOptions.h"
#include "io/AudioEncoder.h"
#include "io/EncodePlan.h"
#include "io/FormatCatalog.h"

#include <cstdio>
#include <optional>
#include <string>

namespace harlune::cli {

namespace {

constexpr std::string_view usage =
    "harlune-cli convert [--format F] [--bits 16|24|32|float] [--bitrate KBPS] "
    "[--rate HZ] [--dither none|tpdf] IN OUT";

struct ConvertRequest {
    EncodeOptions encode;
    std::string input;
    std::string output;
};

ConvertRequest parse(std::span<const std::string> arguments) {
    ConvertRequest request;
    std::vector<std::string> positional;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const bool isOption = argument.size() > 2 && argument.starts_with("--");
        if (!isOption) {
            positional.push_back(argument);
            continue;
        }
        if (i + 1 >= arguments.size())
            throw UsageError{argument + " needs a value"};
        if (!request.encode.parse(argument, arguments[++i]))
            throw UsageError{"unknown option \u2018" + argument + "\u2019"};
    }
    if (positional.size() != 2)
        throw UsageError{"expected an input and an output file"};
    request.input = positional[0];
    request.output = positional[1];
    request.encode.resolveFormat(request.output);
    return request;
}

int runConvert(std::span<const std::string> arguments) {
    const ConvertRequest request = parse(arguments);

    convertAudio(request.input, request.output, request.encode);
    return exitSuccess;
}

} // namespace

Command convertCommand() {
    return {"convert", "write an audio file in another format", usage, runConvert};
}

} // namespace harlune::cli
