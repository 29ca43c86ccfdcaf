#include "io/FlacReader.h"

#include "base/HarluneError.h"
#include "io/FlacFrameDecoder.h"

#include <FLAC/stream_decoder.h>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <string>
#include <unistd.h>
#include <vector>

namespace harlune {

namespace {

const std::string readerName = "the built-in FLAC decoder";

} // namespace

/// The decoder and what its callbacks leave for the reading loop. The callbacks run inside
/// libFLAC's calls on the reading thread; they only copy and record, so that nothing throws
/// through the library.
struct FlacReader::State {
    FLAC__StreamDecoder* decoder = nullptr;
    std::filesystem::path url;
    int channels = 0;
    int bitsPerSample = 0;
    int64_t minBlockFrames = 0;
    int64_t maxBlockFrames = 0;
    int64_t maxFrameBytes = 0; // 0: not known
    int64_t totalFrames = 0;   // 0: not known
    /// Converted frames not yet handed on: room for a chunk and one whole FLAC frame.
    std::vector<std::vector<float>> planes;
    int64_t pendingFrames = 0;
    /// Frames still wanted; frames past them in the last FLAC frame are dropped.
    int64_t wanted = 0;
    std::optional<std::string> error;

    ~State() {
        if (decoder)
            FLAC__stream_decoder_delete(decoder);
    }

    void fail(std::string text) {
        if (!error)
            error = std::move(text);
    }

    FLAC__StreamDecoderWriteStatus take(const FLAC__Frame& frame, const FLAC__int32* const buffers[]) {
        const auto blockFrames = static_cast<int64_t>(frame.header.blocksize);
        if (static_cast<int>(frame.header.channels) != channels ||
            static_cast<int>(frame.header.bits_per_sample) != bitsPerSample || blockFrames > maxBlockFrames) {
            fail("a frame unlike the stream\u2019s description");
            return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
        }
        const int64_t n = std::min(blockFrames, wanted);
        // A power of two, so that every sample converts exactly as libsndfile converts it.
        const float scale = std::ldexp(1.0f, -(bitsPerSample - 1));
        for (int c = 0; c < channels; ++c) {
            const FLAC__int32* source = buffers[c];
            float* target = planes[static_cast<size_t>(c)].data() + pendingFrames;
            for (int64_t i = 0; i < n; ++i)
                target[i] = static_cast<float>(source[i]) * scale;
        }
        pendingFrames += n;
        wanted -= n;
        return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
    }
};

namespace {

FLAC__StreamDecoderWriteStatus onWrite(const FLAC__StreamDecoder*, const FLAC__Frame* frame,
                                       const FLAC__int32* const buffers[], void* data) {
    return static_cast<FlacReader::State*>(data)->take(*frame, buffers);
}

void onMetadata(const FLAC__StreamDecoder*, const FLAC__StreamMetadata* metadata, void* data) {
    auto& state = *static_cast<FlacReader::State*>(data);
    if (metadata->type != FLAC__METADATA_TYPE_STREAMINFO)
        return;
    const auto& info = metadata->data.stream_info;
    state.channels = static_cast<int>(info.channels);
    state.bitsPerSample = static_cast<int>(info.bits_per_sample);
    state.minBlockFrames = info.min_blocksize;
    state.maxBlockFrames = info.max_blocksize;
    state.maxFrameBytes = info.max_framesize;
    state.totalFrames = static_cast<int64_t>(info.total_samples);
}

void onError(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus status, void* data) {
    static_cast<FlacReader::State*>(data)->fail(FLAC__StreamDecoderErrorStatusString[status]);
}

/// The bytes of a file from an offset on, in a window that always holds the next frame whole
/// when the file has it, with the decoder's padding after it.
class FrameWindow {
public:
    FrameWindow(const std::filesystem::path& url, int64_t offset, size_t frameBytes)
        : fd_(::open(url.c_str(), O_RDONLY | O_CLOEXEC)), offset_(offset), frameBytes_(frameBytes),
          bytes_(std::max<size_t>(size_t{4} << 20, 2 * frameBytes) + FlacFrameDecoder::readPadding) {
        if (fd_ >= 0)
            ::posix_fadvise(fd_, offset, 0, POSIX_FADV_SEQUENTIAL);
    }
    ~FrameWindow() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FrameWindow(const FrameWindow&) = delete;
    FrameWindow& operator=(const FrameWindow&) = delete;

    bool isOpen() const { return fd_ >= 0; }

    /// The bytes from the read position on: at least a frame's worth unless the file ends
    /// first; empty at the end. Nothing when the file can't be read.
    std::optional<std::span<const uint8_t>> next() {
        if (end_ - at_ < frameBytes_ && !ended_) {
            std::memmove(bytes_.data(), bytes_.data() + at_, end_ - at_);
            end_ -= at_;
            at_ = 0;
            const size_t room = bytes_.size() - FlacFrameDecoder::readPadding;
            while (end_ < room) {
                const ssize_t got = ::pread(fd_, bytes_.data() + end_, room - end_, offset_);
                if (got < 0 && errno == EINTR)
                    continue;
                if (got < 0)
                    return std::nullopt;
                if (got == 0) {
                    ended_ = true;
                    break;
                }
                end_ += static_cast<size_t>(got);
                offset_ += got;
            }
        }
        return std::span<const uint8_t>(bytes_.data() + at_, end_ - at_);
    }
    void consume(size_t bytes) { at_ += bytes; }

private:
    int fd_;
    int64_t offset_;
    size_t frameBytes_;
    std::vector<uint8_t> bytes_;
    size_t at_ = 0;
    size_t end_ = 0;
    bool ended_ = false;
};

} // namespace

FlacReader::FlacReader(const std::filesystem::path& url) : state_(std::make_unique<State>()) {
    State& state = *state_;
    state.url = url;
    state.decoder = FLAC__stream_decoder_new();
    if (!state.decoder)
        throw HarluneError::decodeFailed(readerName + " can\u2019t start");
    FILE* file = std::fopen(url.c_str(), "rb");
    if (!file)
        throw HarluneError::decodeFailed(readerName + " can\u2019t open the file");
    // libFLAC asks for a few KiB at a time: a large buffer turns 90000 reads an hour into 500.
    std::setvbuf(file, nullptr, _IOFBF, 1 << 20);
    // A decoder that started owns the file and closes it; one that refused leaves it to us.
    if (FLAC__stream_decoder_init_FILE(state.decoder, file, onWrite, onMetadata, onError, &state) !=
        FLAC__STREAM_DECODER_INIT_STATUS_OK) {
        std::fclose(file);
        throw HarluneError::decodeFailed(readerName + " can\u2019t open the file");
    }
    if (!FLAC__stream_decoder_process_until_end_of_metadata(state.decoder) || state.error ||
        state.channels < 1 || state.bitsPerSample < 4 || state.bitsPerSample > 32 || state.maxBlockFrames < 1)
        throw HarluneError::decodeFailed(readerName + " found no usable stream description");
    state.planes.assign(static_cast<size_t>(state.channels),
                        std::vector<float>(static_cast<size_t>(decodeChunkFrames + state.maxBlockFrames)));
}

FlacReader::~FlacReader() = default;

namespace {

/// Where the frame decoder stopped: the stream's next frame, and whether the file ended there.
struct FastRoad {
    int64_t nextFrame = 0;
    bool endOfFile = false;
};

/// Frames from byte `position` (whose first sample is `nextFrame`) through the frame decoder
/// into the state's float planes, handing on full chunks, until the part has all it wants, the
/// file ends, or a frame is refused.
template <typename HandOn>
FastRoad readFrames(FlacReader::State& state, int64_t position, int64_t nextFrame, const HandOn& handOn) {
    const FlacStreamShape shape{
        .channels = state.channels,
        .bitsPerSample = state.bitsPerSample,
        .maxBlockFrames = static_cast<int>(state.maxBlockFrames),
        .fixedBlockFrames =
            state.minBlockFrames == state.maxBlockFrames ? static_cast<int>(state.maxBlockFrames) : 0,
    };
    // A frame is at most what its header says, or its samples verbatim with headers around.
    const auto frameBytes = static_cast<size_t>(
        state.maxFrameBytes > 0 ? state.maxFrameBytes
                                : state.maxBlockFrames * state.channels * (state.bitsPerSample + 1) / 8 + 64);
    FrameWindow window(state.url, position, frameBytes);
    if (!window.isOpen())
        return {nextFrame, false};
    FlacFrameDecoder decoder(shape);
    const float scale = std::ldexp(1.0f, -(state.bitsPerSample - 1));
    while (state.wanted > 0) {
        const std::optional<std::span<const uint8_t>> bytes = window.next();
        if (!bytes)
            return {nextFrame, false};
        if (bytes->empty())
            return {nextFrame, true};
        const std::optional<FlacFrameSpan> frame = decoder.decode(*bytes);
        if (!frame || frame->firstSample != nextFrame)
            return {nextFrame, false};
        window.consume(frame->bytes);
        const int64_t n = std::min<int64_t>(frame->blockFrames, state.wanted);
        for (int c = 0; c < state.channels; ++c) {
            const int32_t* source = decoder.plane(c);
            float* target = state.planes[static_cast<size_t>(c)].data() + state.pendingFrames;
            for (int64_t i = 0; i < n; ++i)
                target[i] = static_cast<float>(source[i]) * scale;
        }
        state.pendingFrames += n;
        state.wanted -= n;
        nextFrame += frame->blockFrames;
        while (state.pendingFrames >= decodeChunkFrames)
            handOn(decodeChunkFrames);
    }
    return {nextFrame, false};
}

} // namespace

int64_t FlacReader::decodeFrom(int64_t start, std::optional<int64_t> count, DecodeChunkCallback onChunk,
                               FunctionRef<bool(int64_t)> tick) {
    State& state = *state_;
    state.pendingFrames = 0;
    state.wanted = count ? *count : INT64_MAX;
    state.error.reset();
    const auto failure = [&](const std::string& what) {
        return HarluneError::decodeFailed(readerName + " " + what + " (" +
                                          state.error.value_or("no reason given") + ")");
    };
    // The seek itself delivers the frame holding `start`, from `start` on.
    if (start > 0 && !FLAC__stream_decoder_seek_absolute(state.decoder, static_cast<FLAC__uint64>(start)))
        throw failure("can\u2019t seek to frame " + std::to_string(start));

    std::vector<std::span<const float>> views(static_cast<size_t>(state.channels));
    int64_t delivered = 0;
    const auto handOn = [&](int64_t frames) {
        for (size_t c = 0; c < views.size(); ++c)
            views[c] = std::span<const float>(state.planes[c].data(), static_cast<size_t>(frames));
        onChunk(ChunkViews(views));
        delivered += frames;
        const int64_t rest = state.pendingFrames - frames;
        for (auto& plane : state.planes)
            std::memmove(plane.data(), plane.data() + frames, static_cast<size_t>(rest) * sizeof(float));
        state.pendingFrames = rest;
        if (!tick(frames))
            throw HarluneError::cancelled();
    };
    // The bulk of the part through the frame decoder, from the end of what libFLAC decoded last.
    // Where it refuses a frame, libFLAC goes on from that frame's first sample.
    if (state.error)
        throw failure("decode error at frame " + std::to_string(start));
    if (state.wanted > 0 && state.channels <= 8 &&
        state.bitsPerSample <= FlacFrameDecoder::maxBitsPerSample && state.maxBlockFrames >= 16) {
        FLAC__uint64 position = 0;
        if (!FLAC__stream_decoder_get_decode_position(state.decoder, &position))
            throw failure("can\u2019t tell where frame " + std::to_string(start) + " ends");
        const int64_t next = start + state.pendingFrames;
        const FastRoad road = readFrames(state, static_cast<int64_t>(position), next, handOn);
        if (!road.endOfFile && state.wanted > 0) {
            // Past the length the header gives there is nothing to seek to: what follows the
            // last frame is not audio.
            if (state.totalFrames > 0 && road.nextFrame >= state.totalFrames)
                state.wanted = 0;
            else if (!FLAC__stream_decoder_seek_absolute(state.decoder,
                                                         static_cast<FLAC__uint64>(road.nextFrame)))
                throw failure("can\u2019t seek to frame " + std::to_string(road.nextFrame));
        } else {
            state.wanted = 0;
        }
    }
    while (state.wanted > 0) {
        if (state.error)
            throw failure("decode error after " + std::to_string(start + delivered) + " frames");
        if (state.pendingFrames >= decodeChunkFrames) {
            handOn(decodeChunkFrames);
            continue;
        }
        if (FLAC__stream_decoder_get_state(state.decoder) == FLAC__STREAM_DECODER_END_OF_STREAM)
            break;
        if (!FLAC__stream_decoder_process_single(state.decoder) && !state.error)
            state.fail(FLAC__StreamDecoderStateString[FLAC__stream_decoder_get_state(state.decoder)]);
    }
    if (state.error)
        throw failure("decode error after " + std::to_string(start + delivered) + " frames");
    while (state.pendingFrames > 0)
        handOn(std::min(state.pendingFrames, decodeChunkFrames));
    return delivered;
}

} // namespace harlune
