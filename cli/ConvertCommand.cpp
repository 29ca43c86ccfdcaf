#include "CliSupport.h"
#include "Commands.h"
#include "OpenAudio.h"
#include "io/AudioEncoder.h"
#include "io/EncodePlan.h"
#include "io/FormatCatalog.h"

#include <charconv>
#include <cstdio>
#include <optional>
#include <string>

namespace harlune::cli {

namespace {

constexpr std::string_view usage =
    "harlune-cli convert [--format F] [--bits 16|24|32|float] [--bitrate KBPS] "
    "[--rate HZ] [--dither none|tpdf] IN OUT";

struct ConvertRequest {
    std::optional<ExportFormat> format;
    std::optional<PCMBitDepth> bits;
    std::optional<int> bitRateKbps;
    std::optional<double> sampleRate;
    std::optional<DitherMode> dither;
    std::string input;
    std::string output;
};

template <class Number> Number parseNumber(const std::string& text, const std::string& option) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !(value > 0))
        throw UsageError{option + " needs a positive number, not \u2018" + text + "\u2019"};
    return value;
}

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
        const std::string& value = arguments[++i];
        if (argument == "--format") {
            request.format = exportFormatFromRawValue(value);
            if (!request.format)
                throw UsageError{"unknown format \u2018" + value +
                                 "\u2019 (wav, aiff, caf, flac, alac, aac, mp3, opus)"};
        } else if (argument == "--bits") {
            request.bits = value == "float" ? std::optional(PCMBitDepth::float32)
                           : value == "0"   ? std::nullopt
                                            : pcmBitDepthFromRawValue(parseNumber<int>(value, argument));
            if (!request.bits)
                throw UsageError{"--bits takes 16, 24, 32 or float"};
        } else if (argument == "--bitrate") {
            request.bitRateKbps = parseNumber<int>(value, argument);
        } else if (argument == "--rate") {
            request.sampleRate = parseNumber<double>(value, argument);
        } else if (argument == "--dither") {
            request.dither = ditherModeFromRawValue(value);
            if (!request.dither)
                throw UsageError{"--dither takes none or tpdf"};
        } else {
            throw UsageError{"unknown option \u2018" + argument + "\u2019"};
        }
    }
    if (positional.size() != 2)
        throw UsageError{"expected an input and an output file"};
    request.input = positional[0];
    request.output = positional[1];
    if (!request.format) {
        const std::string extension = std::filesystem::path(request.output).extension().string();
        request.format = FormatCatalog::exportFormat(extension);
        if (!request.format)
            throw UsageError{"can\u2019t tell the format from \u2018" + request.output +
                             "\u2019: use --format"};
    }
    return request;
}

// Tells, on standard output, each setting that was asked for and is not what the file gets.
void reportDifferences(const ConvertRequest& request, const EncodePlan& plan) {
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
    EncodeSettings settings = EncodeSettings::defaults(*request.format);
    if (request.bits)
        settings.bitDepth = *request.bits;
    if (request.bitRateKbps)
        settings.bitRateKbps = *request.bitRateKbps;
    if (request.dither)
        settings.dither = *request.dither;
    settings.sampleRate = request.sampleRate;

    OpenedAudio opened = [&] {
        ProgressBar bar("reading ");
        auto update = [&](double fraction) {
            return bar.update(fraction);
        };
        return openAudio(request.input, FunctionRef<bool(double)>(update));
    }();
    const EncodePlan plan = EncodePlan::make(opened.content, std::nullopt, settings);
    reportDifferences(request, plan);
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
