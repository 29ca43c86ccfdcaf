#pragma once

#include "base/AudioFormats.h"
#include "io/ChunkSink.h"
#include "io/EncodePipeline.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct AVStream;

namespace harlune {

/// The end stage for Apple Lossless and AAC in an MPEG-4 audio file (.m4a), through FFmpeg's
/// libavcodec encoders (`alac`, the native `aac`) and libavformat's "ipod" muxer.
class M4aWriter final : public ChunkSink {
public:
    enum class Codec { alac, aac };

    struct Spec {
        Codec codec = Codec::aac;
        double sampleRate = 48000; ///< Hz
        int channels = 2;
        /// ALAC only: 16 or 24 bits (the encoder stops at 24).
        PCMBitDepth bitDepth = PCMBitDepth::int24;
        bool dither = false;
        /// AAC only: bits per second.
        std::optional<int> bitRate;
    };

    /// Creates the file, erasing what is there. Throws `HarluneError.encodeFailed`.
    M4aWriter(const std::filesystem::path& path, const Spec& spec);
    ~M4aWriter() override;

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

    /// The bit rate the encoder really uses, bits per second (AAC only).
    std::optional<int> appliedBitRate() const { return appliedBitRate_; }

    /// Whether this build's libavcodec has the encoder and libavformat the muxer.
    static bool isAvailable(Codec codec);

private:
    void sendFrame(bool flush);
    void release() noexcept;

    Spec spec_;
    AVFormatContext* format_ = nullptr;
    AVCodecContext* codec_ = nullptr;
    AVStream* stream_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    bool headerWritten_ = false;
    int frameFill_ = 0;   ///< frames in `frame_` so far
    int64_t nextPts_ = 0; ///< in samples
    std::optional<Quantizer> quantizer_;
    std::vector<int32_t> intBuffer_;
    std::optional<int> appliedBitRate_;
};

} // namespace harlune
