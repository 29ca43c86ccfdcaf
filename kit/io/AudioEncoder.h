#pragma once

#include "base/AudioFormats.h"
#include "base/AudioSource.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace harlune {

/// Writes audio files. One export is one pass through a chain of streaming stages
/// (`ChunkSink`): an optional channel fold, an optional sample-rate conversion with a length
/// guard behind it, and the format's writer. The data goes to a hidden temporary file beside
/// the destination, which replaces the destination only once everything has succeeded: a failed
/// or cancelled export leaves an existing file as it was and nothing behind.
namespace AudioEncoder {

/// Takes the fraction done (0...1) and answers whether to go on.
using Progress = std::function<bool(double)>;

/// Writes `range` of `source` (its full range when absent) to `destination`. Runs on the
/// calling thread from start to end; the source must give stable data meanwhile. Throws
/// `HarluneError` (`cancelled` when `progress` answered false).
void write(const AudioSource& source, std::optional<FrameRange> range,
           const std::filesystem::path& destination, const EncodeSettings& settings,
           const Progress& progress = {});

/// Whether this build, on this machine, can write `format`.
bool isAvailable(ExportFormat format);

/// The rate, Hz, that `write` would give a file of `format` when `requested` is asked for.
double outputSampleRate(ExportFormat format, double requested);

/// The MP3 library's version text, or none without the library.
std::optional<std::string> lameVersion();

} // namespace AudioEncoder

} // namespace harlune
