#pragma once

#include "base/AudioFormats.h"

#include <optional>
#include <string_view>

namespace harlune::FormatCatalog {

/// Case-insensitive, one leading "." allowed: "WAV", ".wav" and "wav" agree.
std::optional<ExportFormat> exportFormat(std::string_view fileExtension);
/// Known uniform type identifiers only: this platform has no type database to ask for others.
std::optional<ExportFormat> exportFormatForTypeIdentifier(std::string_view typeIdentifier);

} // namespace harlune::FormatCatalog
