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
    ArgumentReader reader(arguments);
    while (reader.next()) {
        if (!reader.isOption())
            positional.push_back(reader.current());
        else if (!request.encode.parse(reader))
            throw reader.unknownOption();
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
