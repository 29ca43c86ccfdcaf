#pragma once

#include "engine/AudioOutputDevice.h"
#include "engine/PlaybackProgram.h"
#include "engine/PreviewEffects.h"
#include "engine/Realtime.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace harlune {

/// Everything the render callback touches, made once per engine and shared by the engine and the
/// device (weakly by the effects rack).
///
/// There is no command queue between the threads. The main thread describes what to play in a
/// `PlaybackProgram` and stores it under `programLock`; each callback tries that lock, copies the
/// program (two reference-count increments, no audio) and lets go at once, and a busy lock costs
/// one silent callback. The effects rack publishes its state the same way under a second lock,
/// where a busy lock keeps the previous runtime running. `position` and `finished` are relaxed
/// atomics: a seek that races a callback may be overwritten by it, and the next seek or tick puts
/// things right. All scratch memory is made here, so the callback allocates nothing; and it never
/// drops the last reference to anything: the main thread keeps replaced envelope sets and
/// contents alive for a while, and the callback hands the runtime it stops running back to the
/// main thread (`PreviewEffectsState::handedBack`).
class RenderState final : public RenderSource {
public:
    /// Frames per inner pass: the size of every scratch buffer.
    static constexpr int kMaxChunk = 4096;
    /// Channels rendered; content with more plays its first 32.
    static constexpr int maxChannels = 32;

    RenderState();
    RenderState(const RenderState&) = delete;
    RenderState& operator=(const RenderState&) = delete;

    /// The render callback. Zeroes `outputs`, then plays the program from `position` on,
    /// wrapping or finishing at the end of its range, applying envelopes, effects and gain, and
    /// folding channels beyond the output count onto the outputs.
    void render(int frameCount, std::span<float* const> outputs,
                bool& isSilence) noexcept HARLUNE_NONBLOCKING override;

    /// Guards `program`. Main thread: blocking `lock` for stores only. Audio thread: `tryLock`.
    SpinTryLock programLock;
    PlaybackProgram program;
    /// The next frame to render. Written by the callback, and by the main thread on play and seek.
    std::atomic<int64_t> position{0};
    /// Set by the callback when a non-looping range is exhausted; cleared by the main thread on play.
    std::atomic<bool> finished{false};
    /// Guards `effects`, separately from the program so that a rack rebuild never silences playback.
    SpinTryLock effectsLock;
    PreviewEffectsState effects;

    /// Main thread: runs `change(effects)` under the effects lock, then lets go, off the lock and
    /// on this thread, of the runtime the callback handed back and of any runtime `change`
    /// replaced. Every store into `effects` goes through here, so that the callback always finds
    /// `handedBack` empty when it moves on to another runtime.
    template <class Change> void updateEffects(Change&& change) {
        std::shared_ptr<PreviewRuntime> previous;
        std::shared_ptr<PreviewRuntime> handedBack;
        {
            const SpinLockGuard lock(effectsLock);
            previous = effects.runtime;
            change(effects);
            handedBack = std::move(effects.handedBack);
        }
    }
    /// Odd while a callback runs, one more at each entry and exit. The main thread reads it to
    /// know when no callback can still hold an object it replaced.
    std::atomic<uint64_t> callbackEpoch{0};

    /// Main thread: whether a callback that may have seen the program before the store that
    /// returned `epochAfterStore` (the epoch read after that store) can still be running.
    bool mayStillHold(uint64_t epochAfterStore) const noexcept {
        return epochAfterStore % 2 == 1 && callbackEpoch.load() == epochAfterStore;
    }

private:
    std::vector<float> scratch_; ///< maxChannels planes of kMaxChunk floats, one after another
    std::array<float*, maxChannels> scratchPointers_{};
    /// The runtime of the last callback that got the effects lock. Its reference is never
    /// dropped here: it goes back through `effects.handedBack`.
    std::shared_ptr<PreviewRuntime> cachedRuntime_;
    std::vector<float> envelopeGains_;
    std::vector<float> envelopeScratch_;
};

} // namespace harlune
