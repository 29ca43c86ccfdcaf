#pragma once

#include "base/AudioFormats.h"
#include "base/AudioSource.h"
#include "io/ChunkSink.h"
#include "io/SndFileWriter.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace harlune {

/// Everything one export decides before the first sample moves: what to write, at which rate
/// and with how many channels, and exactly how many frames the file will hold.
struct EncodePlan {
    EncodeSettings settings; ///< normalised, and brought to what this build's encoders carry
    FrameRange range;        ///< source frames to write
    double sourceRate = 0;   ///< Hz
    int sourceChannels = 0;
    double outputRate = 0; ///< Hz
    int outputChannels = 0;
    int64_t outputFrames = 0; ///< exact length of the file

    /// Throws `HarluneError.encodeFailed` for a source without audio, a range outside it, or an
    /// empty range. `range` absent means the source's full range.
    static EncodePlan make(const AudioSource& source, std::optional<FrameRange> range,
                           const EncodeSettings& settings);
    /// The same for a source known only by its rate, channels and length in frames.
    static EncodePlan make(double sourceRate, int sourceChannels, int64_t frames,
                           std::optional<FrameRange> range, const EncodeSettings& settings);

    /// The frames the file holds for `inputFrames` source frames.
    int64_t outputFrameCount(int64_t inputFrames) const;

    /// The rate a file of `format` gets when `requested` is asked for: the nearest the format
    /// carries (the higher at equal distance), 48000 for a request not above 0.
    static double resolveRate(ExportFormat format, double requested);

    /// The container of a `wav`, `aiff` or `caf` export: `wav` becomes RF64 once the samples
    /// reach 4293918720 bytes.
    SndFileWriter::Container pcmFileType() const;

    /// The format's writer, on a new file at `path`.
    std::unique_ptr<ChunkSink> makeWriter(const std::filesystem::path& path) const;
};

namespace CodecCapabilities {
/// The discrete rates this build's encoder for `format` takes, if it lists any (AAC only).
std::optional<std::vector<double>> encodeSampleRates(ExportFormat format);
/// The entry of `rates` nearest to `rate`; the higher one at equal distance.
double nearest(double rate, std::span<const double> rates);
} // namespace CodecCapabilities

} // namespace harlune
