#include "base/AudioFormats.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <nlohmann/json.hpp>

namespace harlune {

namespace {

struct FormatRow {
    ExportFormat format;
    std::string_view raw;
    std::string_view displayName;
    std::string_view fileExtension;
    std::string_view typeIdentifier;
    bool isLossy;
    bool isPCM;
    int maxChannels;
};

constexpr std::array<FormatRow, 8> formatTable{{
    {ExportFormat::wav, "wav", "WAV", "wav", "com.microsoft.waveform-audio", false, true, 8},
    {ExportFormat::aiff, "aiff", "AIFF", "aiff", "public.aiff-audio", false, true, 8},
    {ExportFormat::caf, "caf", "Core Audio (CAF)", "caf", "com.apple.coreaudio-format", false, true, 8},
    {ExportFormat::flac, "flac", "FLAC", "flac", "org.xiph.flac", false, false, 8},
    {ExportFormat::alac, "alac", "Apple Lossless (ALAC)", "m4a", "com.apple.m4a-audio", false, false, 8},
    {ExportFormat::aac, "aac", "AAC", "m4a", "com.apple.m4a-audio", true, false, 8},
    {ExportFormat::mp3, "mp3", "MP3", "mp3", "public.mp3", true, false, 2},
    {ExportFormat::opus, "opus", "Opus", "opus", "org.xiph.opus", true, false, 2},
}};

constexpr std::array<ExportFormat, 8> allFormats{ExportFormat::wav,  ExportFormat::aiff, ExportFormat::caf,
                                                 ExportFormat::flac, ExportFormat::alac, ExportFormat::aac,
                                                 ExportFormat::mp3,  ExportFormat::opus};

const FormatRow& row(ExportFormat format) {
    return formatTable[static_cast<size_t>(format)];
}

constexpr std::array<PCMBitDepth, 4> depthsWavCaf{PCMBitDepth::int16, PCMBitDepth::int24, PCMBitDepth::int32,
                                                  PCMBitDepth::float32};
constexpr std::array<PCMBitDepth, 3> depthsInteger{PCMBitDepth::int16, PCMBitDepth::int24,
                                                   PCMBitDepth::int32};
constexpr std::array<PCMBitDepth, 2> depthsFlac{PCMBitDepth::int16, PCMBitDepth::int24};

constexpr std::array<int, 7> ratesAac{64, 96, 128, 160, 192, 256, 320};
constexpr std::array<int, 7> ratesMp3{96, 128, 160, 192, 224, 256, 320};
constexpr std::array<int, 6> ratesOpus{60, 80, 100, 120, 160, 256};

constexpr std::array<double, 12> sampleRatesAac{8000,  11025, 12000, 16000, 22050, 24000,
                                                32000, 44100, 48000, 64000, 88200, 96000};
constexpr std::array<double, 3> sampleRatesMp3{32000, 44100, 48000};
constexpr std::array<double, 1> sampleRatesOpus{48000};

template <class T> void hashCombine(size_t& seed, const T& value) {
    seed ^= std::hash<T>{}(value) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}

} // namespace

std::span<const ExportFormat> allExportFormats() {
    return allFormats;
}
std::string_view rawValue(ExportFormat format) {
    return row(format).raw;
}

std::optional<ExportFormat> exportFormatFromRawValue(std::string_view raw) {
    for (const auto& r : formatTable)
        if (r.raw == raw)
            return r.format;
    return std::nullopt;
}

std::string_view displayName(ExportFormat format) {
    return row(format).displayName;
}
std::string_view fileExtension(ExportFormat format) {
    return row(format).fileExtension;
}
std::string_view typeIdentifier(ExportFormat format) {
    return row(format).typeIdentifier;
}
bool isLossy(ExportFormat format) {
    return row(format).isLossy;
}
bool isPCM(ExportFormat format) {
    return row(format).isPCM;
}
int maxChannels(ExportFormat format) {
    return row(format).maxChannels;
}

std::span<const PCMBitDepth> supportedBitDepths(ExportFormat format) {
    switch (format) {
    case ExportFormat::wav:
    case ExportFormat::caf:
        return depthsWavCaf;
    case ExportFormat::aiff:
    case ExportFormat::alac:
        return depthsInteger;
    case ExportFormat::flac:
        return depthsFlac;
    case ExportFormat::aac:
    case ExportFormat::mp3:
    case ExportFormat::opus:
        return {};
    }
    return {};
}

std::span<const int> supportedBitRates(ExportFormat format) {
    switch (format) {
    case ExportFormat::aac:
        return ratesAac;
    case ExportFormat::mp3:
        return ratesMp3;
    case ExportFormat::opus:
        return ratesOpus;
    default:
        return {};
    }
}

std::optional<std::span<const double>> supportedSampleRates(ExportFormat format) {
    switch (format) {
    case ExportFormat::aac:
        return std::span<const double>(sampleRatesAac);
    case ExportFormat::mp3:
        return std::span<const double>(sampleRatesMp3);
    case ExportFormat::opus:
        return std::span<const double>(sampleRatesOpus);
    default:
        return std::nullopt;
    }
}

std::optional<PCMBitDepth> pcmBitDepthFromRawValue(int raw) {
    switch (raw) {
    case 16:
        return PCMBitDepth::int16;
    case 24:
        return PCMBitDepth::int24;
    case 32:
        return PCMBitDepth::int32;
    case 0:
        return PCMBitDepth::float32;
    default:
        return std::nullopt;
    }
}

int bits(PCMBitDepth depth) {
    return depth == PCMBitDepth::float32 ? 32 : static_cast<int>(depth);
}

std::string_view displayName(PCMBitDepth depth) {
    switch (depth) {
    case PCMBitDepth::int16:
        return "16-bit";
    case PCMBitDepth::int24:
        return "24-bit";
    case PCMBitDepth::int32:
        return "32-bit";
    case PCMBitDepth::float32:
        return "32-bit float";
    }
    return "";
}

std::string_view rawValue(DitherMode mode) {
    return mode == DitherMode::none ? "none" : "tpdf";
}

std::optional<DitherMode> ditherModeFromRawValue(std::string_view raw) {
    if (raw == "none")
        return DitherMode::none;
    if (raw == "tpdf")
        return DitherMode::tpdf;
    return std::nullopt;
}

std::string_view displayName(DitherMode mode) {
    return mode == DitherMode::none ? "None" : "Triangular (TPDF)";
}

EncodeSettings EncodeSettings::defaults(ExportFormat format) {
    EncodeSettings settings;
    settings.format = format;
    settings.bitDepth = PCMBitDepth::int24;
    settings.dither = DitherMode::tpdf;
    settings.sampleRate = std::nullopt;
    settings.bitRateKbps = format == ExportFormat::opus ? 160 : format == ExportFormat::mp3 ? 320 : 256;
    return settings;
}

EncodeSettings EncodeSettings::normalized() const {
    EncodeSettings result = *this;
    const auto depths = supportedBitDepths(format);
    if (!depths.empty() && std::find(depths.begin(), depths.end(), bitDepth) == depths.end()) {
        const bool has24 = std::find(depths.begin(), depths.end(), PCMBitDepth::int24) != depths.end();
        result.bitDepth = has24 ? PCMBitDepth::int24 : depths.front();
    }
    const auto rates = supportedBitRates(format);
    if (!rates.empty() && std::find(rates.begin(), rates.end(), bitRateKbps) == rates.end()) {
        // Walked from the start, replaced only on a strictly smaller distance: a tie keeps the lower rate.
        int best = rates.front();
        int64_t bestDistance = std::llabs(static_cast<int64_t>(best) - bitRateKbps);
        for (const int rate : rates) {
            const int64_t distance = std::llabs(static_cast<int64_t>(rate) - bitRateKbps);
            if (distance < bestDistance) {
                best = rate;
                bestDistance = distance;
            }
        }
        result.bitRateKbps = best;
    }
    return result;
}

void to_json(nlohmann::json& json, const EncodeSettings& settings) {
    json = nlohmann::json::object();
    json["format"] = std::string(rawValue(settings.format));
    json["bitDepth"] = rawValue(settings.bitDepth);
    json["bitRateKbps"] = settings.bitRateKbps;
    json["dither"] = std::string(rawValue(settings.dither));
    if (settings.sampleRate)
        json["sampleRate"] = *settings.sampleRate;
}

void from_json(const nlohmann::json& json, EncodeSettings& settings) {
    const auto format = exportFormatFromRawValue(json.at("format").get<std::string>());
    const auto depth = pcmBitDepthFromRawValue(json.at("bitDepth").get<int>());
    const int bitRate = json.at("bitRateKbps").get<int>();
    const auto dither = ditherModeFromRawValue(json.at("dither").get<std::string>());
    if (!format || !depth || !dither)
        throw nlohmann::json::other_error::create(501, "unknown raw value in encode settings", &json);
    std::optional<double> sampleRate;
    if (const auto it = json.find("sampleRate"); it != json.end() && !it->is_null())
        sampleRate = it->get<double>();
    settings = EncodeSettings{*format, *depth, bitRate, *dither, sampleRate};
}

} // namespace harlune

size_t std::hash<harlune::EncodeSettings>::operator()(const harlune::EncodeSettings& s) const noexcept {
    size_t seed = 0;
    harlune::hashCombine(seed, static_cast<int>(s.format));
    harlune::hashCombine(seed, static_cast<int>(s.bitDepth));
    harlune::hashCombine(seed, s.bitRateKbps);
    harlune::hashCombine(seed, static_cast<int>(s.dither));
    harlune::hashCombine(seed, s.sampleRate.value_or(-1.0));
    return seed;
}

size_t std::hash<harlune::AudioFileInfo>::operator()(const harlune::AudioFileInfo& info) const noexcept {
    size_t seed = 0;
    harlune::hashCombine(seed, info.url ? info.url->native() : std::string());
    harlune::hashCombine(seed, info.containerName);
    harlune::hashCombine(seed, info.codecName);
    harlune::hashCombine(seed, info.sampleRate);
    harlune::hashCombine(seed, info.channelCount);
    harlune::hashCombine(seed, info.bitDepth.value_or(-1));
    harlune::hashCombine(seed, info.isFloat);
    harlune::hashCombine(seed, info.bitRateKbps.value_or(-1));
    harlune::hashCombine(seed, info.frameCount);
    harlune::hashCombine(seed, info.fileSize.value_or(-1));
    harlune::hashCombine(seed, info.isLossy);
    harlune::hashCombine(seed, info.nativeExportFormat ? static_cast<int>(*info.nativeExportFormat) : -1);
    harlune::hashCombine(seed, info.decoderName);
    return seed;
}
