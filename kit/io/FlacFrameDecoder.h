#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace harlune {

/// What every frame of one FLAC stream shares, from its STREAMINFO block.
struct FlacStreamShape {
    int channels = 0;
    int bitsPerSample = 0;
    int maxBlockFrames = 0;
    /// The block size of a fixed-block stream, whose frame headers count frames, not samples.
    int fixedBlockFrames = 0;
};

/// One frame's place in the stream.
struct FlacFrameSpan {
    int64_t firstSample = 0;
    int blockFrames = 0;
    size_t bytes = 0;
};

/// Decodes the audio frames of a FLAC stream into integer planes, for the bulk of a long file
/// read in parts. Debian's libFLAC spends a fifth of its time on per-sample branches when it
/// undoes the stereo decorrelation, and reads its bits 32 at a time; this decoder does the same
/// arithmetic (64-bit prediction sums, as libFLAC's own) in tighter loops.
///
/// It takes only what it can check: a frame whose header or audio fails its CRC, that uses a
/// reserved code, that disagrees with the stream's description or has more than 24 bits is
/// refused (`decode` gives nothing), and the caller hands the rest of the stream to libFLAC.
/// One decoder serves one thread.
class FlacFrameDecoder {
public:
    /// The bytes of `decode`'s span must stay readable this far past its end: the header is read
    /// before its length is known, and the bit reader loads eight bytes at a time.
    static constexpr size_t readPadding = 16;
    static constexpr int maxBitsPerSample = 24;

    /// `shape` must have 1 to 8 channels, 4 to 24 bits and a block size of at least 16.
    explicit FlacFrameDecoder(FlacStreamShape shape);

    /// Decodes the frame at the start of `bytes`; nothing if that is not a whole frame of this
    /// stream that passes its checks.
    std::optional<FlacFrameSpan> decode(std::span<const uint8_t> bytes);

    /// The samples of the last decoded frame for channel `channel`, as integers of the stream's
    /// bit depth.
    const int32_t* plane(int channel) const { return planes_[static_cast<size_t>(channel)].data(); }

private:
    FlacStreamShape shape_;
    std::vector<std::vector<int32_t>> planes_;
};

} // namespace harlune
