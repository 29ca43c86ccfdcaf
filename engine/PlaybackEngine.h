#pragma once

#include "engine/AudioOutputDevice.h"
#include "engine/RenderState.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

namespace harlune {

/// Turns a document's in-memory content into sound through one output device. The main thread
/// describes what to play (`start`, `setAudio`, `setGain`, `setLooping`, `setEnvelopes`,
/// `pause`); the device's callback renders it from the shared `RenderState`. Every operation is
/// for the main thread.
class PlaybackEngine {
public:
    /// Number of replaced envelope sets (and contents) kept alive for a callback still using one.
    static constexpr size_t retiredLimit = 16;

    explicit PlaybackEngine(std::unique_ptr<AudioOutputDevice> device);
    /// Stops the device before the render state can go.
    ~PlaybackEngine();
    PlaybackEngine(const PlaybackEngine&) = delete;
    PlaybackEngine& operator=(const PlaybackEngine&) = delete;

    /// Makes the stream match the content's rate and channel count (at most 2), rebuilding it
    /// only when either differs. Throws the format error or the device's error.
    void ensureGraph(const AudioContent& content);
    /// A new play of `range` from `from` (its start when absent; the stream is built and started
    /// as needed). Keeps the envelope set. Throws what `ensureGraph` or the device's start throws.
    void start(AudioContent content, FrameRange range, bool loop, float gain,
               std::optional<int64_t> from = std::nullopt);
    /// Swaps content, envelopes and range in as one, under one lock, so that no callback renders
    /// the new content through the old envelopes or the reverse; position and settings stay.
    /// Every edit, undo and redo comes through here once.
    void setAudio(AudioContent content, EnvelopeSet envelopes, FrameRange range);
    void setGain(float gain);
    void setLooping(bool loop);
    /// Stores the set alone and retires the previous one (a change of the envelopes only).
    void setEnvelopes(EnvelopeSet envelopes);
    /// Silences the program, then pauses the device; graph and program stay.
    void pause();
    /// The frame the listener hears now: `position` less the device latency, never before the
    /// start of the range.
    int64_t audiblePosition() const;
    /// Main thread, on the device's configuration-change event: restarts the stream when playing.
    void handleConfigurationChange();

    RenderState& state() { return *state_; }
    const RenderState& state() const { return *state_; }
    const std::shared_ptr<RenderState>& renderState() const { return state_; }
    AudioOutputDevice& device() { return *device_; }
    /// The format of the current stream, absent before the first graph and after a failed one.
    const std::optional<StreamFormat>& nodeFormat() const { return nodeFormat_; }
    /// Oldest first.
    const std::deque<std::shared_ptr<const EnvelopeSet>>& retiredEnvelopes() const {
        return retiredEnvelopes_;
    }

private:
    void retireContent(std::optional<AudioContent> content);
    void retireEnvelopes(std::shared_ptr<const EnvelopeSet> envelopes);
    /// Main thread: waits for a callback still running since `epoch` (one callback at most).
    void waitForCallbackSince(uint64_t epoch) const;

    std::unique_ptr<AudioOutputDevice> device_;
    std::optional<StreamFormat> nodeFormat_;
    std::shared_ptr<RenderState> state_;
    std::shared_ptr<int> alive_; ///< weakly held by the configuration-change handler
    std::deque<std::shared_ptr<const EnvelopeSet>> retiredEnvelopes_;
    std::deque<uint64_t> retiredEnvelopeEpochs_; ///< `callbackEpoch` read after each retirement
    // A callback in progress may hold the only other reference to a replaced content's segment
    // list, like an envelope set; so the last few stay here too.
    std::deque<AudioContent> retiredContents_;
    std::deque<uint64_t> retiredContentEpochs_;
};

} // namespace harlune
