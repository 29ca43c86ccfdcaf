#pragma once

#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

namespace harlune::FFmpegTool {

/// Where executables are looked for, in order: /opt/homebrew/bin, /usr/local/bin, /usr/bin, then
/// the entries of `PATH`. The fixed folders come first on purpose: a desktop session's `PATH` is
/// often short.
std::vector<std::filesystem::path> searchDirectories();
/// The first candidate folder holding an executable regular file `name`, joined with `name`.
std::optional<std::filesystem::path> locate(std::string_view name);

/// Found once at first use and kept for the life of the process.
std::optional<std::filesystem::path> ffmpegURL();
std::optional<std::filesystem::path> ffprobeURL();

/// For tests: replaces the folders searched (absent restores the usual list) and forgets the
/// locations found so far, so that a test can play a machine without ffmpeg.
void setSearchDirectoriesForTesting(std::optional<std::vector<std::filesystem::path>> directories);

} // namespace harlune::FFmpegTool
