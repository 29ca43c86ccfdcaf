#include "io/FlacWriter.h"

#include "base/HarluneError.h"
#include "base/Precondition.h"
#include "io/FlacChecksums.h"

#include <FLAC/format.h>
#include <FLAC/stream_encoder.h>
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

extern "C" {
#include <libavutil/md5.h>
#include <libavutil/mem.h>
}

// Exported by libFLAC since 1.1.3 (the flac tool's --no-md5-sum) but declared only in its own
// headers until 1.5. A stretch's MD5 would be a second pass over every sample, thrown away.
extern "C" FLAC_API FLAC__bool FLAC__stream_encoder_set_do_md5(FLAC__StreamEncoder* encoder,
                                                               FLAC__bool value);

namespace harlune {

namespace {

constexpr size_t streamInfoOffset = 8; // after "fLaC" and the block's own header
constexpr size_t streamInfoBytes = 34;

std::string systemReason() {
    return std::strerror(errno);
}

/// An encoder set up as every stretch's: same depth, rate and level, and no MD5 of its own stretch
/// (the file's comes from `consume`).
struct EncoderHandle {
    FLAC__StreamEncoder* encoder = FLAC__stream_encoder_new();
    ~EncoderHandle() {
        if (encoder)
            FLAC__stream_encoder_delete(encoder);
    }
    EncoderHandle(const EncoderHandle&) = delete;
    EncoderHandle& operator=(const EncoderHandle&) = delete;
    EncoderHandle(int channels, int bits, unsigned rate, int level) {
        if (!encoder)
            throw HarluneError::encodeFailed("Creating the FLAC file failed (out of memory)");
        FLAC__stream_encoder_set_channels(encoder, static_cast<unsigned>(channels));
        FLAC__stream_encoder_set_bits_per_sample(encoder, static_cast<unsigned>(bits));
        FLAC__stream_encoder_set_sample_rate(encoder, rate);
        FLAC__stream_encoder_set_compression_level(encoder, static_cast<unsigned>(level));
        FLAC__stream_encoder_set_do_md5(encoder, false);
    }
};

} // namespace

/// What one stretch's encoder wrote: its frames one after another, and each frame's place and
/// sample count.
struct FlacWriter::Encoded {
    struct Frame {
        size_t offset;
        size_t bytes;
        unsigned samples;
    };
    std::vector<uint8_t> bytes;
    std::vector<Frame> frames;
};

struct FlacWriter::Md5 {
    AVMD5* context = av_md5_alloc();
    ~Md5() { av_free(context); }
};

namespace {

FLAC__StreamEncoderWriteStatus keepFrames(const FLAC__StreamEncoder*, const FLAC__byte buffer[], size_t bytes,
                                          uint32_t samples, uint32_t, void* data) {
    // The stream's own header comes with no samples: one description is written for the file.
    if (samples == 0)
        return FLAC__STREAM_ENCODER_WRITE_STATUS_OK;
    auto& encoded = *static_cast<FlacWriter::Encoded*>(data);
    encoded.frames.push_back({encoded.bytes.size(), bytes, samples});
    encoded.bytes.insert(encoded.bytes.end(), buffer, buffer + bytes);
    return FLAC__STREAM_ENCODER_WRITE_STATUS_OK;
}

FLAC__StreamEncoderWriteStatus dropAll(const FLAC__StreamEncoder*, const FLAC__byte[], size_t, uint32_t,
                                       uint32_t, void*) {
    return FLAC__STREAM_ENCODER_WRITE_STATUS_OK;
}

FlacWriter::Encoded encodeStretch(std::vector<int32_t> samples, int64_t frames, int channels, int bits,
                                  unsigned rate, int level) {
    EncoderHandle handle(channels, bits, rate, level);
    FlacWriter::Encoded encoded;
    encoded.bytes.reserve(samples.size() * static_cast<size_t>(bits) / 8 / 2);
    if (FLAC__stream_encoder_init_stream(handle.encoder, keepFrames, nullptr, nullptr, nullptr, &encoded) !=
            FLAC__STREAM_ENCODER_INIT_STATUS_OK ||
        !FLAC__stream_encoder_process_interleaved(handle.encoder, samples.data(),
                                                  static_cast<uint32_t>(frames)) ||
        !FLAC__stream_encoder_finish(handle.encoder))
        throw HarluneError::encodeFailed(
            std::string("Encoding FLAC failed (") +
            FLAC__StreamEncoderStateString[FLAC__stream_encoder_get_state(handle.encoder)] + ")");
    return encoded;
}

/// A frame or sample number as the frame header codes it: UTF-8's scheme, up to 36 bits.
void appendCodedNumber(std::vector<uint8_t>& out, uint64_t value) {
    if (value < 0x80) {
        out.push_back(static_cast<uint8_t>(value));
        return;
    }
    int more = 1;
    while (more < 6 && value >= (uint64_t{1} << (6 * more + 6 - more)))
        ++more;
    const auto lead = static_cast<uint8_t>(0xff00 >> (more + 1));
    out.push_back(static_cast<uint8_t>(lead | (value >> (6 * more))));
    for (int i = more - 1; i >= 0; --i)
        out.push_back(static_cast<uint8_t>(0x80 | ((value >> (6 * i)) & 0x3f)));
}

void putBigEndian(uint8_t* at, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        at[i] = static_cast<uint8_t>(value >> (8 * (bytes - 1 - i)));
}

} // namespace

FlacWriter::FlacWriter(const std::filesystem::path& path, const Spec& spec)
    : spec_(spec), bits_(spec.bitDepth == PCMBitDepth::int16 ? 16 : 24), md5_(std::make_unique<Md5>()) {
    HARLUNE_PRECONDITION(spec.channels >= 1 && spec.channels <= 8 && spec.sampleRate > 0,
                         "FlacWriter needs 1 to 8 channels and a rate");
    HARLUNE_PRECONDITION(spec.bitDepth == PCMBitDepth::int16 || spec.bitDepth == PCMBitDepth::int24,
                         "FlacWriter writes 16 or 24 bits");
    quantizer_ = Quantizer(bits_, spec.dither);
    if (!md5_->context)
        throw HarluneError::encodeFailed("Creating the FLAC file failed (out of memory)");
    av_md5_init(md5_->context);

    // A trial encoder: settings libFLAC refuses fail here, before any file exists.
    {
        EncoderHandle trial(spec.channels, bits_, static_cast<unsigned>(spec.sampleRate),
                            spec.compressionLevel);
        const FLAC__StreamEncoderInitStatus status =
            FLAC__stream_encoder_init_stream(trial.encoder, dropAll, nullptr, nullptr, nullptr, nullptr);
        if (status != FLAC__STREAM_ENCODER_INIT_STATUS_OK)
            throw HarluneError::encodeFailed(std::string("Creating the FLAC file failed (") +
                                             FLAC__StreamEncoderInitStatusString[status] + ")");
        blockFrames_ = static_cast<int>(FLAC__stream_encoder_get_blocksize(trial.encoder));
        FLAC__stream_encoder_finish(trial.encoder);
    }

    file_ = std::fopen(path.c_str(), "wb");
    if (!file_)
        throw HarluneError::encodeFailed("Creating the FLAC file failed (" + systemReason() + ")");
    std::setvbuf(file_, nullptr, _IOFBF, size_t{1} << 20);
    // The description's place, filled at the end, and the vendor's comment block.
    std::vector<uint8_t> header = {'f', 'L', 'a', 'C', 0x00, 0, 0, streamInfoBytes};
    header.resize(header.size() + streamInfoBytes);
    const std::string vendor = FLAC__VENDOR_STRING;
    const size_t commentBytes = 4 + vendor.size() + 4;
    header.push_back(0x80 | FLAC__METADATA_TYPE_VORBIS_COMMENT);
    for (int i = 2; i >= 0; --i)
        header.push_back(static_cast<uint8_t>(commentBytes >> (8 * i)));
    for (int i = 0; i < 4; ++i)
        header.push_back(static_cast<uint8_t>(vendor.size() >> (8 * i))); // little-endian, as Vorbis has it
    header.insert(header.end(), vendor.begin(), vendor.end());
    header.insert(header.end(), {0, 0, 0, 0}); // no comments
    try {
        writeBytes(header.data(), header.size());
    } catch (...) {
        abort();
        throw;
    }
    stretch_.reserve(static_cast<size_t>(blocksPerStretch) * static_cast<size_t>(blockFrames_) *
                     static_cast<size_t>(spec.channels));
}

FlacWriter::~FlacWriter() {
    abort();
}

void FlacWriter::consume(ChunkViews chunk) {
    if (chunk.empty() || chunk.front().empty())
        return;
    if (file_ == nullptr)
        throw HarluneError::encodeFailed("the file is already closed");
    HARLUNE_PRECONDITION(static_cast<int>(chunk.size()) == spec_.channels,
                         "FlacWriter got the wrong channel count");
    const size_t frames = chunk.front().size();
    const size_t samples = frames * chunk.size();
    if (codes_.size() < samples)
        codes_.resize(samples);
    quantizer_.quantize(chunk, codes_);
    // The codes stand in the top bits; FLAC and its MD5 take them at their own width.
    const int shift = 32 - bits_;
    const size_t bytesPerSample = static_cast<size_t>(bits_ / 8);
    md5Bytes_.resize(samples * bytesPerSample);
    uint8_t* md5At = md5Bytes_.data();
    const int64_t stretchLimit = int64_t{blocksPerStretch} * blockFrames_;
    for (size_t i = 0; i < samples; ++i)
        codes_[i] >>= shift;
    if (bytesPerSample == 2)
        for (size_t i = 0; i < samples; ++i) {
            const auto sample = static_cast<uint32_t>(codes_[i]);
            md5At[2 * i] = static_cast<uint8_t>(sample);
            md5At[2 * i + 1] = static_cast<uint8_t>(sample >> 8);
        }
    else
        for (size_t i = 0; i < samples; ++i) {
            const auto sample = static_cast<uint32_t>(codes_[i]);
            md5At[3 * i] = static_cast<uint8_t>(sample);
            md5At[3 * i + 1] = static_cast<uint8_t>(sample >> 8);
            md5At[3 * i + 2] = static_cast<uint8_t>(sample >> 16);
        }
    size_t frame = 0;
    while (frame < frames) {
        const size_t take = std::min(frames - frame, static_cast<size_t>(stretchLimit - stretchFrames_));
        stretch_.insert(stretch_.end(), codes_.begin() + static_cast<std::ptrdiff_t>(frame * chunk.size()),
                        codes_.begin() + static_cast<std::ptrdiff_t>((frame + take) * chunk.size()));
        stretchFrames_ += static_cast<int64_t>(take);
        frame += take;
        if (stretchFrames_ == stretchLimit)
            launchStretch();
    }
    av_md5_update(md5_->context, md5Bytes_.data(), md5Bytes_.size());
}

void FlacWriter::launchStretch() {
    const size_t ahead =
        std::clamp(static_cast<size_t>(std::thread::hardware_concurrency()), size_t{1}, size_t{8});
    while (running_.size() >= ahead)
        writeOldestStretch();
    std::vector<int32_t> samples = std::exchange(stretch_, {});
    stretch_.reserve(samples.capacity());
    running_.push_back(std::async(std::launch::async, encodeStretch, std::move(samples), stretchFrames_,
                                  spec_.channels, bits_, static_cast<unsigned>(spec_.sampleRate),
                                  spec_.compressionLevel));
    stretchFrames_ = 0;
}

void FlacWriter::writeOldestStretch() {
    std::future<Encoded> oldest = std::move(running_.front());
    running_.pop_front();
    const Encoded encoded = oldest.get();
    for (const Encoded::Frame& frame : encoded.frames) {
        const uint8_t* bytes = encoded.bytes.data() + frame.offset;
        // The header: 4 bytes, the coded frame number, the bytes of an uncommon block size or
        // rate, then its CRC-8. The stretch's encoder counted its frames from 0.
        const uint8_t lead = frame.bytes > 6 ? bytes[4] : 0xff;
        const int numberBytes = lead < 0x80 ? 1 : std::countl_one(lead);
        const int sizeCode = bytes[2] >> 4;
        const int rateCode = bytes[2] & 0x0f;
        const int extraBytes = (sizeCode == 6   ? 1
                                : sizeCode == 7 ? 2
                                                : 0) +
                               (rateCode == 12 ? 1 : 0) + (rateCode == 13 || rateCode == 14 ? 2 : 0);
        const size_t headerBytes = 4 + static_cast<size_t>(numberBytes + extraBytes);
        if (bytes[0] != 0xff || bytes[1] != 0xf8 || numberBytes < 1 || numberBytes > 6 ||
            headerBytes + 3 > frame.bytes)
            throw HarluneError::encodeFailed("Encoding FLAC failed (an unexpected frame)");
        frame_.assign(bytes, bytes + 4);
        appendCodedNumber(frame_, static_cast<uint64_t>(blocksWritten_));
        frame_.insert(frame_.end(), bytes + 4 + numberBytes, bytes + headerBytes);
        frame_.push_back(flacCrc8(frame_));
        frame_.insert(frame_.end(), bytes + headerBytes + 1, bytes + frame.bytes - 2);
        const uint16_t crc = flacCrc16(frame_);
        frame_.push_back(static_cast<uint8_t>(crc >> 8));
        frame_.push_back(static_cast<uint8_t>(crc & 0xff));
        writeBytes(frame_.data(), frame_.size());
        const auto size = static_cast<uint32_t>(frame_.size());
        minFrameBytes_ = minFrameBytes_ == 0 ? size : std::min(minFrameBytes_, size);
        maxFrameBytes_ = std::max(maxFrameBytes_, size);
        ++blocksWritten_;
        framesWritten_ += frame.samples;
    }
}

void FlacWriter::writeBytes(const uint8_t* data, size_t size) {
    if (std::fwrite(data, 1, size, file_) != size)
        throw HarluneError::encodeFailed("Writing audio failed (" + systemReason() + ")");
}

void FlacWriter::finish() {
    if (file_ == nullptr)
        return;
    try {
        if (stretchFrames_ > 0)
            launchStretch();
        while (!running_.empty())
            writeOldestStretch();

        std::array<uint8_t, streamInfoBytes> info{};
        putBigEndian(&info[0], static_cast<uint64_t>(blockFrames_), 2);
        putBigEndian(&info[2], static_cast<uint64_t>(blockFrames_), 2);
        putBigEndian(&info[4], minFrameBytes_, 3);
        putBigEndian(&info[7], maxFrameBytes_, 3);
        // Rate (20 bits), channels - 1 (3), bits - 1 (5), length in samples (36).
        const uint64_t packed = (static_cast<uint64_t>(spec_.sampleRate) << 44) |
                                (static_cast<uint64_t>(spec_.channels - 1) << 41) |
                                (static_cast<uint64_t>(bits_ - 1) << 36) |
                                static_cast<uint64_t>(framesWritten_);
        putBigEndian(&info[10], packed, 8);
        // An empty stream's MD5 stays zero: "not computed", as libFLAC leaves it.
        if (framesWritten_ > 0)
            av_md5_final(md5_->context, &info[18]);
        if (std::fflush(file_) != 0 || std::fseek(file_, streamInfoOffset, SEEK_SET) != 0)
            throw HarluneError::encodeFailed("Finalising the file failed (" + systemReason() + ")");
        writeBytes(info.data(), info.size());
        std::FILE* file = std::exchange(file_, nullptr);
        if (std::fclose(file) != 0)
            throw HarluneError::encodeFailed("Finalising the file failed (" + systemReason() + ")");
    } catch (...) {
        abort();
        throw;
    }
}

void FlacWriter::abort() noexcept {
    // A stretch still encoding finishes on its own thread; its result is dropped.
    for (auto& running : running_)
        if (running.valid())
            running.wait();
    running_.clear();
    if (file_ != nullptr)
        std::fclose(std::exchange(file_, nullptr));
}

} // namespace harlune
