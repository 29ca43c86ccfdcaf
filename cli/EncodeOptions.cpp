#include "EncodeOptions.h"

#include "CliSupport.h"
#include "base/HarluneError.h"
#include "io/AudioDecoder.h"
#include "io/AudioEncoder.h"
#include "io/EncodeStream.h"
#include "io/FormatCatalog.h"

#include <charconv>
#include <cstdio>
#include <filesystem>

namespace harlune::cli {

namespace {

template <class Number> Number parsePositive(const std::string& text, const std::string& option) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !(value > 0))
        throw UsageError{option + " needs a positive number, not \u2018" + text + "\u2019"};
    return value;
}

} // namespace

double parsePositiveNumber(const std::string& text, const std::string& option) {
    return parsePositive<double>(text, option);
}

int parsePositiveInteger(const std::string& text, const std::string& option) {
    return parsePositive<int>(text, option);
}

bool EncodeOptions::parse(ArgumentReader& reader) {
    const std::string& option = reader.current();
    if (option != "--format" && option != "--bits" && option != "--bitrate" && option != "--rate" &&
        option != "--dither")
        return false;
    const std::string& value = reader.value();
    if (option == "--format") {
        format = exportFormatFromRawValue(value);
        if (!format)
            throw UsageError{"unknown format \u2018" + value +
                             "\u2019 (wav, aiff, caf, flac, alac, aac, mp3, opus)"};
    } else if (option == "--bits") {
        bits = value == "float" ? std::optional(PCMBitDepth::float32)
               : value == "0"   ? std::nullopt
                                : pcmBitDepthFromRawValue(parsePositiveInteger(value, option));
        if (!bits)
            throw UsageError{"--bits takes 16, 24, 32 or float"};
    } else if (option == "--bitrate") {
        bitRateKbps = parsePositiveInteger(value, option);
    } else if (option == "--rate") {
        sampleRate = parsePositiveNumber(value, option);
    } else if (option == "--dither") {
        dither = ditherModeFromRawValue(value);
        if (!dither)
            throw UsageError{"--dither takes none or tpdf"};
    }
    return true;
}

void EncodeOptions::resolveFormat(const std::string& output) {
    if (format)
        return;
    const std::string extension = std::filesystem::path(output).extension().string();
    format = FormatCatalog::exportFormat(extension);
    if (!format)
        throw UsageError{"can\u2019t tell the format from \u2018" + output + "\u2019: use --format"};
}

EncodeSettings EncodeOptions::settings() const {
    EncodeSettings result = EncodeSettings::defaults(*format);
    if (bits)
        result.bitDepth = *bits;
    if (bitRateKbps)
        result.bitRateKbps = *bitRateKbps;
    if (dither)
        result.dither = *dither;
    result.sampleRate = sampleRate;
    return result;
}

void EncodeOptions::reportDifferences(const EncodePlan& plan) const {
    const EncodeOptions& request = *this;
    const EncodeSettings& used = plan.settings;
    const std::string formatName(displayName(used.format));
    if (request.bits && !isLossy(used.format) && used.bitDepth != *request.bits)
        std::printf("bit depth: %s (%s asked)\n", std::string(displayName(used.bitDepth)).c_str(),
                    std::string(displayName(*request.bits)).c_str());
    if (request.bits && isLossy(used.format))
        std::printf("bit depth: does not apply to %s\n", formatName.c_str());
    if (request.bitRateKbps && !supportedBitRates(used.format).empty() &&
        used.bitRateKbps != *request.bitRateKbps)
        std::printf("bit rate: %d kbps (%d kbps asked)\n", used.bitRateKbps, *request.bitRateKbps);
    if (request.bitRateKbps && supportedBitRates(used.format).empty())
        std::printf("bit rate: does not apply to %s\n", formatName.c_str());
    if (request.dither &&
        (isLossy(used.format) || isFloat(used.bitDepth) || used.bitDepth == PCMBitDepth::int32))
        std::printf("dither: not used for %s %s\n", formatName.c_str(),
                    isLossy(used.format) ? "files" : std::string(displayName(used.bitDepth)).c_str());
    if (request.sampleRate && plan.outputRate != *request.sampleRate)
        std::printf("sample rate: %.0f Hz (%.0f Hz asked)\n", plan.outputRate, *request.sampleRate);
    else if (!request.sampleRate && plan.outputRate != plan.sourceRate)
        std::printf("sample rate: %.0f Hz (the source has %.0f Hz; %s takes no other)\n", plan.outputRate,
                    plan.sourceRate, formatName.c_str());
    if (plan.outputChannels != plan.sourceChannels)
        std::printf("channels: %d (the source has %d; %s carries at most %d)\n", plan.outputChannels,
                    plan.sourceChannels, formatName.c_str(), maxChannels(used.format));
}

void writeAudio(const AudioContent& content, const std::string& output, const EncodeOptions& options) {
    const EncodeSettings settings = options.settings();
    options.reportDifferences(EncodePlan::make(content, std::nullopt, settings));
    std::fflush(stdout);
    ProgressBar bar("writing ");
    AudioEncoder::write(content, std::nullopt, output, settings,
                        [&](double fraction) { return bar.update(fraction); });
}

void convertAudio(const std::string& input, const std::string& output, const EncodeOptions& options) {
    const EncodeSettings settings = options.settings();
    std::optional<EncodeStream> stream;
    ProgressBar bar("converting ");
    auto update = [&](double fraction) {
        return bar.update(fraction);
    };
    auto onFormat = [&](const AudioFileInfo& info) {
        stream.emplace(output, settings, info.sampleRate, info.channelCount, info.frameCount);
        options.reportDifferences(stream->plan());
        std::fflush(stdout);
    };
    auto onChunk = [&](ChunkViews chunk) {
        stream->consume(chunk);
    };
    AudioDecoder::decode(input, FunctionRef<bool(double)>(update), onFormat, onChunk);
    if (!stream)
        throw HarluneError::encodeFailed("the source has no audio");
    stream->finish();
}

} // namespace harlune::cli
