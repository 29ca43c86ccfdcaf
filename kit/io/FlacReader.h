#pragma once

#include "base/FunctionRef.h"
#include "io/DecodeCallbacks.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>

namespace harlune {

/// A FLAC file read without libsndfile, for the parts of a long file read at once. libsndfile's
/// FLAC road copies every frame through an interleaved buffer and spends about a fifth of an
/// hour-long open converting; Debian's libFLAC spends a fifth of its own time undoing stereo
/// coding. So libFLAC opens the file and seeks to the part's first sample, and the frames after
/// that go through `FlacFrameDecoder`, whose integer planes turn into float planes in one pass.
/// A frame it refuses goes back to libFLAC from that frame's first sample. The samples are
/// exactly libsndfile's: an integer over 2^(bits - 1).
///
/// Any trouble libFLAC reports (a file it won't open, a failed seek, a frame that fails its
/// check) throws `HarluneError::decodeFailed`; the caller reads the file over through libsndfile,
/// whose handling of damage is the one users see. One reader serves one thread at a time.
class FlacReader {
public:
    explicit FlacReader(const std::filesystem::path& url);
    ~FlacReader();
    FlacReader(const FlacReader&) = delete;
    FlacReader& operator=(const FlacReader&) = delete;

    /// Seeks to `start` and streams up to `count` frames (all to the end when absent) as chunks
    /// of at most `decodeChunkFrames`. `tick` takes the frames of each chunk and answers whether
    /// to go on; false throws `HarluneError::cancelled`. Returns the frames delivered.
    int64_t decodeFrom(int64_t start, std::optional<int64_t> count, DecodeChunkCallback onChunk,
                       FunctionRef<bool(int64_t)> tick);

    struct State;

private:
    std::unique_ptr<State> state_;
};

} // namespace harlune
