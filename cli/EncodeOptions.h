#pragma once

#include "base/AudioFormats.h"
#include "io/EncodePlan.h"

#include <optional>
#include <string>

namespace harlune::cli {

/// The encode options that every writing subcommand takes: --format, --bits, --bitrate, --rate,
/// --dither. Only what was asked for is set.
struct EncodeOptions {
    std::optional<ExportFormat> format;
    std::optional<PCMBitDepth> bits;
    std::optional<int> bitRateKbps;
    std::optional<double> sampleRate;
    std::optional<DitherMode> dither;

    /// The usage text of the options, for a subcommand's usage line.
    static constexpr std::string_view usage =
        "[--format F] [--bits 16|24|32|float] [--bitrate KBPS] [--rate HZ] [--dither none|tpdf]";

    /// Takes `option` with its `value` when it is one of these; false when it is not. A bad value
    /// throws `UsageError`.
    bool parse(const std::string& option, const std::string& value);
    /// Sets the format from `output`'s extension when none was given; throws `UsageError` when it
    /// can't tell.
    void resolveFormat(const std::string& output);
    /// The format's defaults with the asked options over them. The format must be resolved.
    EncodeSettings settings() const;
    /// Tells, on standard output, each setting that was asked for and is not what the file gets.
    void reportDifferences(const EncodePlan& plan) const;
};

/// `text` as a number above 0; anything else throws `UsageError` naming `option`.
double parsePositive(const std::string& text, const std::string& option);
int parsePositiveInt(const std::string& text, const std::string& option);

} // namespace harlune::cli
