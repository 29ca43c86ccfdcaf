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

} // namespace harlune::cli
