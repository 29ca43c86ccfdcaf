#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace harlune {

/// The formats the program writes, in the order of every menu.
enum class ExportFormat { wav, aiff, caf, flac, alac, aac, mp3, opus };

/// Bits per sample of a lossless export. `float32` is deliberately 0, not 32.
enum class PCMBitDepth : int { int16 = 16, int24 = 24, int32 = 32, float32 = 0 };

enum class DitherMode { none, tpdf };

// ExportFormat --------------------------------------------------------------------------------

/// All formats in menu order.
std::span<const ExportFormat> allExportFormats();
/// The raw value, which is also the `id`: "wav", "aiff" and so on.
std::string_view rawValue(ExportFormat format);
std::optional<ExportFormat> exportFormatFromRawValue(std::string_view raw);
std::string_view displayName(ExportFormat format);
std::string_view fileExtension(ExportFormat format);
/// The uniform type identifier, kept for the save panel's filters and for JSON interchange.
std::string_view typeIdentifier(ExportFormat format);
bool isLossy(ExportFormat format);
bool isPCM(ExportFormat format);
int maxChannels(ExportFormat format);
/// Empty where bit depth does not apply (the lossy formats).
std::span<const PCMBitDepth> supportedBitDepths(ExportFormat format);
/// kbit/s; empty where bit rate does not apply (the lossless formats).
std::span<const int> supportedBitRates(ExportFormat format);
/// Hz; absent means any rate.
std::optional<std::span<const double>> supportedSampleRates(ExportFormat format);

// PCMBitDepth ---------------------------------------------------------------------------------

constexpr int rawValue(PCMBitDepth depth) {
    return static_cast<int>(depth);
}
std::optional<PCMBitDepth> pcmBitDepthFromRawValue(int raw);
/// 16, 24, 32, and 32 for float.
int bits(PCMBitDepth depth);
constexpr bool isFloat(PCMBitDepth depth) {
    return depth == PCMBitDepth::float32;
}
/// "16-bit", "24-bit", "32-bit", "32-bit float".
std::string_view displayName(PCMBitDepth depth);

// DitherMode ----------------------------------------------------------------------------------

std::string_view rawValue(DitherMode mode);
std::optional<DitherMode> ditherModeFromRawValue(std::string_view raw);
std::string_view displayName(DitherMode mode);

// EncodeSettings ------------------------------------------------------------------------------

/// The settings of one encode. JSON keys: "format", "bitDepth", "bitRateKbps", "dither" and
/// "sampleRate" (written only when present, optional on reading; the other four are required).
struct EncodeSettings {
    ExportFormat format = ExportFormat::wav;
    PCMBitDepth bitDepth = PCMBitDepth::int24;
    int bitRateKbps = 256;
    DitherMode dither = DitherMode::tpdf;
    /// Hz; absent means the rate of the source.
    std::optional<double> sampleRate;

    static EncodeSettings defaults(ExportFormat format);
    /// The settings brought inside what the format can carry (bit depth and bit rate only).
    EncodeSettings normalized() const;

    friend bool operator==(const EncodeSettings&, const EncodeSettings&) = default;
};

void to_json(nlohmann::json& json, const EncodeSettings& settings);
/// Throws nlohmann::json::exception on a missing key or an unknown raw value.
void from_json(const nlohmann::json& json, EncodeSettings& settings);

// AudioFileInfo -------------------------------------------------------------------------------

/// What probing a file tells about it.
struct AudioFileInfo {
    std::optional<std::filesystem::path> url;
    std::string containerName;
    std::string codecName;
    double sampleRate = 0; ///< Hz
    int channelCount = 0;
    std::optional<int> bitDepth;
    bool isFloat = false;
    std::optional<int> bitRateKbps;
    int64_t frameCount = 0;          ///< frames per channel
    std::optional<int64_t> fileSize; ///< bytes
    bool isLossy = false;
    std::optional<ExportFormat> nativeExportFormat;
    std::string decoderName;

    /// Seconds; 0 when the rate is not above 0.
    double duration() const { return sampleRate > 0 ? static_cast<double>(frameCount) / sampleRate : 0.0; }

    friend bool operator==(const AudioFileInfo&, const AudioFileInfo&) = default;
};

} // namespace harlune

template <> struct std::hash<harlune::EncodeSettings> {
    size_t operator()(const harlune::EncodeSettings& s) const noexcept;
};

template <> struct std::hash<harlune::AudioFileInfo> {
    size_t operator()(const harlune::AudioFileInfo& info) const noexcept;
};
