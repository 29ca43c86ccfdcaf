#pragma once

#include "base/AudioFormats.h"
#include "core/AudioContent.h"
#include "io/DecodeCallbacks.h"

#include <filesystem>

namespace harlune::cli {

/// A file read as the editor reads it: decoded chunk by chunk into blocks with their summaries.
struct OpenedAudio {
    AudioFileInfo announced; ///< what the decoder said before the first chunk (header estimates)
    AudioFileInfo final;     ///< what it returned, with the frames really delivered
    AudioContent content;
};

/// Throws `HarluneError` as `AudioDecoder::decode` does.
OpenedAudio openAudio(const std::filesystem::path& path, DecodeProgress progress);
/// The same with a "reading" progress bar on standard error (when that is a terminal).
OpenedAudio openAudioShowingProgress(const std::filesystem::path& path);

} // namespace harlune::cli
