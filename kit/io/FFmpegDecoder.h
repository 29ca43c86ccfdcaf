#pragma once

#include "base/AudioFormats.h"
#include "io/DecodeCallbacks.h"

#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace harlune::FFmpegDecoder {

/// The parsed answer of ffprobe.
struct ProbeResult {
    AudioFileInfo info;
};

/// True exactly when ffmpeg was found.
bool isAvailable();
/// Asks ffprobe about the first audio stream. Throws `HarluneError`.
ProbeResult probe(const std::filesystem::path& url);
/// Streams the first audio stream as float planes read from ffmpeg's standard output; without
/// ffprobe, converts to a temporary float CAF and reads that back with the native reader.
AudioFileInfo decode(const std::filesystem::path& url, DecodeProgress progress, DecodeFormatCallback onFormat,
                     DecodeChunkCallback onChunk);

// The pieces, open to tests -------------------------------------------------------------------

/// The description of a stream from ffprobe's "streams" entry and its "format" object.
AudioFileInfo makeInfo(const std::filesystem::path& url, const nlohmann::json& stream,
                       const nlohmann::json& format);
/// A JSON number as it is, a text through a whole-string decimal parse, anything else absent.
std::optional<double> number(const nlohmann::json& value);
std::string containerName(std::string_view formatName, const std::optional<std::string>& formatLong);
std::string codecName(std::string_view codec, const std::optional<std::string>& codecLong);
std::optional<ExportFormat> nativeExportFormat(std::string_view formatName, std::string_view codec);

/// The file as the tools must see it: absolute, behind "file:", so that neither a leading "-"
/// nor a colon in the name is taken for an option or a protocol.
std::string toolInput(const std::filesystem::path& url);
/// What a tool wrote on standard error about `url`, as the user reads it: each distinct message
/// once, joined by "; " (at most three: the first two and the last), without the "[name @ 0x…]"
/// labels of ffmpeg's internals, without the "file:" name of the file in front, starting in lower
/// case where the first word is a plain word, and without a final full stop.
std::string toolMessage(std::string_view stderrText, const std::filesystem::path& url);
std::vector<std::string> probeArguments(const std::filesystem::path& url);
std::vector<std::string> streamArguments(const std::filesystem::path& url, int channels, double sampleRate);
std::vector<std::string> temporaryFileArguments(const std::filesystem::path& url,
                                                const std::filesystem::path& temporaryFile);

} // namespace harlune::FFmpegDecoder
