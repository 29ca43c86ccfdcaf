#pragma once

#include "CliSupport.h"
#include "base/AudioFormats.h"
#include "core/AudioContent.h"
#include "io/EncodePlan.h"

#include <optional>
#include <string>
#include <string_view>

namespace harlune::cli {

/// The options of every subcommand that writes a file: --format, --bits, --bitrate, --rate and
/// --dither. Unset ones take the format's defaults.
struct EncodeOptions {
    std::optional<ExportFormat> format;
    std::optional<PCMBitDepth> bits;
    std::optional<int> bitRateKbps;
    std::optional<double> sampleRate;
    std::optional<DitherMode> dither;

    /// Takes the reader's current option with its value when it is one of these; false, taking
    /// nothing, for any other option. A bad or missing value throws `UsageError`.
    bool parse(ArgumentReader& reader);
    /// Sets `format` from the output's extension when none was given; throws `UsageError` when
    /// that can't be told.
    void resolveFormat(const std::string& output);
    /// The settings to write with; `format` must be resolved.
    EncodeSettings settings() const;
    /// Tells, on standard output, each setting that was asked for and is not what the file gets.
    void reportDifferences(const EncodePlan& plan) const;

    /// The usage text of the options, for a subcommand's usage line.
    static constexpr std::string_view usage =
        "[--format F] [--bits 16|24|32|float] [--bitrate KBPS] [--rate HZ] [--dither none|tpdf]";
};

/// Writes `content` to `output` with `options`' settings: tells which settings differ from those
/// asked, then writes through the encoder with a progress bar on a terminal.
void writeAudio(const AudioContent& content, const std::string& output, const EncodeOptions& options);

/// Converts the file `input` to `output` with `options`' settings as a stream: decoding,
/// conversion and writing run at once, with memory bounded whatever the length. The file is the
/// one `writeAudio` gives for the same audio read whole.
void convertAudio(const std::string& input, const std::string& output, const EncodeOptions& options);

/// A number above 0 made of the whole text, or `UsageError` naming `option`.
double parsePositiveNumber(const std::string& text, const std::string& option);
int parsePositiveInteger(const std::string& text, const std::string& option);

} // namespace harlune::cli
