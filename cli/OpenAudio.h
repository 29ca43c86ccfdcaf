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

/// Throws when `content` holds samples that are NaN or infinite: the loudness figures of such
/// audio mean nothing, and every gain or effect applied to it carries the damage along.
void refuseNonFiniteSamples(const AudioContent& content);

/// Keeps `content` until the process exits. Handing a long file's blocks back one by one costs
/// as much as a tenth of decoding it, while the exit drops all of the process's memory in one
/// sweep; so a command parks here what it holds at its end instead of freeing it.
void keepUntilExit(AudioContent content);
/// Frees what was kept, for a command that goes on to read another file.
void releaseKeptContents();

} // namespace harlune::cli
