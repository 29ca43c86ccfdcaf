#pragma once

#include "base/AudioFormats.h"
#include "io/ChunkSink.h"
#include "io/EncodePipeline.h"
#include "io/EncodePlan.h"
#include "io/FileReplacement.h"

#include <filesystem>
#include <memory>
#include <optional>

namespace harlune {

/// The stages between the source and the writer: mix, then convert, then enforce the length.
struct EncodeChain {
    std::unique_ptr<ChunkSink> head;
    LengthEnforcer* enforcer = nullptr; ///< inside `head`'s chain, when the rate changes
};

/// Builds the chain of `plan` with its writer on a new file at `path`. `threaded` runs the
/// conversion (with the dither) and the writer each on a thread of their own behind hand-offs,
/// converting channels in parallel; the bytes written are the same either way.
EncodeChain makeEncodeChain(const EncodePlan& plan, const std::filesystem::path& path, bool threaded);

/// Writes a file from audio that arrives in pieces and whose length is known only at its end,
/// such as a file being decoded: nothing of it is held but a few chunks, whatever its length.
/// The file's bytes are those that `AudioEncoder::write` gives for the same audio held in memory
/// (the stream is regrouped into the same chunks of 32768 frames). The caller's thread only hands
/// the chunks in; conversion and writing run on threads of their own. Like `AudioEncoder::write`,
/// it replaces the destination only on success.
class EncodeStream {
public:
    /// `estimatedFrames`: the length as far as known now (it picks the WAV container). Throws
    /// `HarluneError` as the plan and the writer do.
    EncodeStream(const std::filesystem::path& destination, const EncodeSettings& settings, double sourceRate,
                 int sourceChannels, int64_t estimatedFrames,
                 FileReplacement::Naming naming = FileReplacement::Naming::automatic);
    /// Without a `finish`, drops everything: the destination stays as it was.
    ~EncodeStream();
    EncodeStream(const EncodeStream&) = delete;
    EncodeStream& operator=(const EncodeStream&) = delete;

    /// The plan, with the estimated length until `finish`.
    const EncodePlan& plan() const { return plan_; }

    /// One piece of the stream, of any length.
    void consume(ChunkViews chunk);
    /// Ends the stream, completes the file and moves it into place. With no frames at all,
    /// throws `encodeFailed` "there’s no audio to export (the range is empty)".
    void finish();

private:
    EncodePlan plan_;
    FileReplacement::TemporaryFile temporary_;
    EncodeChain chain_;
    int64_t frames_ = 0;
    bool done_ = false;
};

} // namespace harlune
