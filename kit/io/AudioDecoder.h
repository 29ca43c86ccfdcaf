#pragma once

#include "base/AudioFormats.h"
#include "io/DecodeCallbacks.h"

#include <filesystem>
#include <string>
#include <vector>

namespace harlune::AudioDecoder {

/// The single door through which any audio file is read.
///
/// Two roads stand behind it: the native reader (libsndfile) is always tried first; the ffmpeg
/// road takes a file only when the native reader declines it, which it does before delivering
/// anything, so a file is never half delivered by one road and again by the other. All
/// operations may run on any background thread; callbacks run on the calling thread.

struct DecodedArrays {
    AudioFileInfo info;
    std::vector<std::vector<float>> channels; ///< one array per channel, the frames delivered
};

/// Reads headers only. Throws `HarluneError`.
AudioFileInfo probe(const std::filesystem::path& url);
/// Streams the file: `onFormat` once with the header's estimate, then chunks in file order.
/// Returns the info whose `frameCount` is what was really delivered. Throws `HarluneError` (or
/// whatever a callback threw, unchanged).
AudioFileInfo decode(const std::filesystem::path& url, DecodeProgress progress, DecodeFormatCallback onFormat,
                     DecodeChunkCallback onChunk);
/// The whole file as arrays, with the same fallback and messages, no progress.
DecodedArrays decodeToArrays(const std::filesystem::path& url);
/// What the open panel accepts: sorted, lower-case, without duplicates.
std::vector<std::string> readableFileExtensions();
/// What the native road reads: the usual fixed list joined with libsndfile's own. Computed once.
const std::vector<std::string>& coreAudioExtensions();

} // namespace harlune::AudioDecoder
