#pragma once

#include "base/AudioFormats.h"

#include <optional>

namespace harlune {

/// The settings with which a probed file can be written back as it was: its own format, bit
/// depth and bit rate over the stored settings of that format, normalised. Absent when the file
/// has no format of its own that this machine can write (Save then acts as Save As).
std::optional<EncodeSettings> settingsMatching(const AudioFileInfo& info);

} // namespace harlune
