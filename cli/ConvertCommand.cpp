#include "CliSupport.h"
#include "Commands.h"
#include "EncodeOptions.h"
#include "OpenAudio.h"
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

// Tells, on standard output, each setting that was asked for and is not what the file gets.
void reportDifferences(const EncodeOptions& request, const EncodePlan& plan) {
    const EncodeSettings& used = plan.settings;
    const std::string format(displayName(used.format));
    if (request.bits && !isLossy(used.format) && used.bitDepth != *request.bits)
        std::printf("bit depth: %s (%s asked)\n", std::string(displayName(used.bitDepth)).c_str(),
                    std::string(displayName(*request.bits)).c_str());
    if (request.bits && isLossy(used.format))
        std::printf("bit depth: does not apply to %s\n", format.c_str());
    if (request.bitRateKbps && !supportedBitRates(used.format).empty() &&
        used.bitRateKbps != *request.bitRateKbps)
        std::printf("bit rate: %d kbps (%d kbps asked)\n", used.bitRateKbps, *request.bitRateKbps);
    if (request.bitRateKbps && supportedBitRates(used.format).empty())
        std::printf("bit rate: does not apply to %s\n", format.c_str());
    if (request.dither &&
        (isLossy(used.format) || isFloat(used.bitDepth) || used.bitDepth == PCMBitDepth::int32))
        std::printf("dither: not used for %s %s\n", format.c_str(),
                    isLossy(used.format) ? "files" : std::string(displayName(used.bitDepth)).c_str());
    if (request.sampleRate && plan.outputRate != *request.sampleRate)
        std::printf("sample rate: %.0f Hz (%.0f Hz asked)\n", plan.outputRate, *request.sampleRate);
    else if (!request.sampleRate && plan.outputRate != plan.sourceRate)
        std::printf("sample rate: %.0f Hz (the source has %.0f Hz; %s takes no other)\n", plan.outputRate,
                    plan.sourceRate, format.c_str());
    if (plan.outputChannels != plan.sourceChannels)
        std::printf("channels: %d (the source has %d; %s carries at most %d)\n", plan.outputChannels,
                    plan.sourceChannels, format.c_str(), maxChannels(used.format));
}

int runConvert(std::span<const std::string> arguments) {
    const ConvertRequest request = parse(arguments);
    const EncodeSettings settings = request.encode.settings();

    OpenedAudio opened = [&] {
        ProgressBar bar("reading ");
        auto update = [&](double fraction) {
            return bar.update(fraction);
        };
        return openAudio(request.input, FunctionRef<bool(double)>(update));
    }();
    const EncodePlan plan = EncodePlan::make(opened.content, std::nullopt, settings);
    reportDifferences(request.encode, plan);
    std::fflush(stdout);

    ProgressBar bar("writing ");
    AudioEncoder::write(opened.content, std::nullopt, request.output, settings,
                        [&](double fraction) { return bar.update(fraction); });
    return exitSuccess;
}

} // namespace

Command convertCommand() {
    return {"convert", "write an audio file in another format", usage, runConvert};
}

} // namespace harlune::cli
