#pragma once

#include "base/AudioFormats.h"
#include "base/FunctionRef.h"
#include "io/DecodeCallbacks.h"

#include <cstdint>
#include <filesystem>

namespace harlune::AudioDecoder {

/// How a file is cut for reading in parts at once.
struct PartPlan {
    /// Parts at most; 0 means one per core (at most 8).
    int maxParts = 0;
    /// No part shorter than this, so that short files stay one stream.
    int64_t minPartFrames = 1 << 20;
};

/// Called before any chunk with the stream's description and the number of parts; called again
/// with one part when a split read failed and the file is read over as one stream (everything
/// delivered before is to be dropped).
using DecodePartsFormatCallback = FunctionRef<void(const AudioFileInfo&, int partCount)>;
/// A chunk of part `part`. Different parts call at once from their own threads; one part's
/// chunks come in file order from one thread.
using DecodePartChunkCallback = FunctionRef<void(int part, ChunkViews)>;

/// As `decode`, but a long file that the native road seeks exactly (PCM, FLAC) is read as
/// consecutive frame ranges, each on its own thread with its own reader: decoding a FLAC is
/// bound by one core otherwise. Part boundaries fall on multiples of 65536 frames. Every other
/// file is one part, through `decode`. `progress` is called from any of the threads, one at a
/// time. Throws as `decode` does.
AudioFileInfo decodeInParts(const std::filesystem::path& url, DecodeProgress progress,
                            DecodePartsFormatCallback onFormat, DecodePartChunkCallback onChunk,
                            PartPlan plan = {});

} // namespace harlune::AudioDecoder
