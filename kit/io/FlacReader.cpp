#include "io/FlacReader.h"

#include "base/HarluneError.h"

#include <FLAC/stream_decoder.h>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
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
    int channels = 0;
    int bitsPerSample = 0;
    int64_t maxBlockFrames = 0;
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
    state.maxBlockFrames = info.max_blocksize;
}

void onError(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus status, void* data) {
    static_cast<FlacReader::State*>(data)->fail(FLAC__StreamDecoderErrorStatusString[status]);
}

} // namespace

FlacReader::FlacReader(const std::filesystem::path& url) : state_(std::make_unique<State>()) {
    State& state = *state_;
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
