#pragma once

#include "base/AudioFormats.h"
#include "io/ChunkSink.h"
#include "io/EncodePipeline.h"

#include <cstdio>
#include <deque>
#include <filesystem>
#include <future>
#include <memory>
#include <vector>

namespace harlune {

/// The end stage for FLAC files, encoding stretches of the audio on all cores at once. One
/// libFLAC encoder is single-threaded, and libsndfile's FLAC road runs one: an hour took as long
/// as `flac -5`. Here each stretch of whole blocks goes to an encoder of its own; their frames
/// are renumbered into one stream (header and frame checksums recomputed) and written in order,
/// and the stream's description (sizes, length, the MD5 of the samples) is written at the end.
/// The samples are the `Quantizer`'s codes, exactly as `SndFileWriter` writes them.
///
/// All calls come from the one thread that runs the export; the encoders run on threads of
/// their own, at most one stretch per core ahead of the file.
class FlacWriter final : public ChunkSink {
public:
    struct Spec {
        double sampleRate = 48000;                 ///< Hz
        int channels = 2;                          ///< 1 to 8
        PCMBitDepth bitDepth = PCMBitDepth::int24; ///< 16 or 24 bits
        bool dither = false;
        /// 0 (fastest) to 8 (smallest), as libFLAC's levels.
        int compressionLevel = 5;
    };

    /// Creates the file, erasing what is there. Throws `HarluneError.encodeFailed`
    /// "Creating the FLAC file failed (REASON)".
    FlacWriter(const std::filesystem::path& path, const Spec& spec);
    ~FlacWriter() override;

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

    /// The frames of one encoder's stretch: this many blocks, but for the last stretch.
    static constexpr int blocksPerStretch = 64;

    struct Encoded;
    struct Md5;

private:
    void launchStretch();
    void writeOldestStretch();
    void writeBytes(const uint8_t* data, size_t size);

    Spec spec_;
    int bits_;
    int blockFrames_;
    std::FILE* file_ = nullptr;
    Quantizer quantizer_;
    std::vector<int32_t> codes_;
    /// Interleaved samples of the stretch being gathered.
    std::vector<int32_t> stretch_;
    int64_t stretchFrames_ = 0;
    std::deque<std::future<Encoded>> running_;
    std::unique_ptr<Md5> md5_;
    std::vector<uint8_t> md5Bytes_;
    int64_t framesWritten_ = 0;  ///< samples per channel in the file
    int64_t blocksWritten_ = 0;  ///< FLAC frames in the file
    uint32_t minFrameBytes_ = 0; ///< 0 until a frame is written
    uint32_t maxFrameBytes_ = 0;
    std::vector<uint8_t> frame_;
};

} // namespace harlune
