#pragma once

#include "base/AudioFormats.h"

#include <optional>
#include <string>

namespace harlune::cli {

/// The options of every subcommand that writes a file: --format, --bits, --bitrate, --rate and
/// --dither. Unset ones take the format's defaults.
struct EncodeOptions {
    std::optional<ExportFormat> format;
    std::optional<PCMBitDepth> bits;
    std::optional<int> bitRateKbps;
    std::optional<double> sampleRate;
    std::optional<DitherMode> dither;

    /// Takes `option` with its `value` when it is one of these; false for any other option.
    /// A bad value throws `UsageError`.
    bool parse(const std::string& option, const std::string& value);
    /// Sets `format` from the output's extension when none was given; throws `UsageError` when
    /// that can't be told.
    void resolveFormat(const std::string& output);
    /// The settings to write with; `format` must be resolved.
    EncodeSettings settings() const;
};

/// A number above 0 made of the whole text, or `UsageError` naming `option`.
double parsePositiveNumber(const std::string& text, const std::string& option);
int parsePositiveInteger(const std::string& text, const std::string& option);

} // namespace harlune::cli
