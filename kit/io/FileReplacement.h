#pragma once

#include "base/AudioFormats.h"

#include <filesystem>

namespace harlune {

/// How a finished export takes the place of the destination: the data is written to a hidden
/// file in the destination's own folder (so the final rename stays on one file system) and moved
/// over the destination only at the end, keeping the old file's mode and owner.
namespace FileReplacement {

/// ".<name without extension>-<UUID>.tmp.<extension>" in the destination's folder; a destination
/// without an extension takes the format's.
std::filesystem::path temporaryPath(const std::filesystem::path& destination, ExportFormat format);

/// Creates `path` exclusively (it must not exist), empty. Throws `HarluneError.encodeFailed`
/// "can’t create NAME: REASON".
void createExclusive(const std::filesystem::path& path);

/// Moves `temporary` over `destination` atomically. The moved file takes the destination's mode
/// and owner if one existed, is flushed to disk before the rename, and the folder after it.
/// Throws `HarluneError.encodeFailed` "couldn’t move the finished file into place: REASON".
void replace(const std::filesystem::path& destination, const std::filesystem::path& temporary);

} // namespace FileReplacement

} // namespace harlune
