#pragma once

#include "base/ChannelSpan.h"
#include "base/FlushDenormals.h"

#include <algorithm>

namespace harlune {

/// One effect as a running object. The same processor runs offline (`EffectRenderer`) and live
/// on the audio thread (the effects rack), so the lifecycle is strict, and the public operations
/// are non-virtual so that it is enforced here, once, around protected hooks:
///
/// - `prepare` allocates everything the processor will ever use, sized for `maxFrames`, then
///   resets. It may throw, and never runs on the audio thread. It may be called again with a
///   new rate or channel count, which replaces the buffers.
/// - `process` works in place on non-interleaved channels. It runs on the audio thread: it
///   allocates nothing, takes no lock, does no I/O and cannot fail. Channels beyond those
///   prepared pass unchanged, and a call longer than `maxFrames` is cut into pieces, so
///   `doProcess` never sees more of either than `prepare` was given. It runs with denormals
///   flushed to zero, so that no processor slows down on a decaying signal.
/// - `reset` clears all signal state, and every gliding parameter jumps to its target.
///
/// Processors are shared (`std::shared_ptr`); a chain taken off the audio thread is released on
/// the main thread.
class EffectProcessor {
public:
    virtual ~EffectProcessor() = default;

    /// Hz, channels (at least 1 is kept), and the largest piece `doProcess` will be given.
    void prepare(double sampleRate, int channelCount, int maxFrames) {
        prepared_ = false;
        channelCount_ = std::max(channelCount, 1);
        maxFrames_ = std::max(maxFrames, 1);
        doPrepare(sampleRate, channelCount_, maxFrames_);
        doReset();
        prepared_ = true;
    }

    /// In place. Processing before a successful `prepare` is a programmer's error, checked in
    /// debug builds.
    void process(ChannelSpan channels) noexcept {
        HARLUNE_DEBUG_PRECONDITION(prepared_, "an effect processed before it was prepared");
        const ChannelSpan used = channels.firstChannels(channelCount_);
        for (int c = 0; c < used.channelCount(); ++c)
            HARLUNE_DEBUG_PRECONDITION(used.channel(c) != nullptr, "an effect given a missing channel");
        const FlushDenormals flushing;
        for (int done = 0; done < used.frameCount(); done += maxFrames_)
            doProcess(used.frames(done, std::min(maxFrames_, used.frameCount() - done)));
    }

    void reset() noexcept { doReset(); }

    /// Frames of output that may follow the end of the input.
    virtual int tailFrames() const = 0;
    /// Frames by which the output lags the input.
    virtual int latencyFrames() const = 0;

    bool isPrepared() const { return prepared_; }
    /// As last prepared.
    int preparedChannelCount() const { return channelCount_; }
    int preparedMaxFrames() const { return maxFrames_; }

protected:
    EffectProcessor() = default;
    EffectProcessor(const EffectProcessor&) = default;
    EffectProcessor& operator=(const EffectProcessor&) = default;

    /// Allocates for `channelCount` (>= 1) channels and pieces of up to `maxFrames` (>= 1).
    virtual void doPrepare(double sampleRate, int channelCount, int maxFrames) = 0;
    /// At most the prepared channels and `maxFrames` frames, all pointers valid.
    virtual void doProcess(ChannelSpan channels) noexcept = 0;
    /// Also called before the first `prepare` (then it may only move parameters).
    virtual void doReset() noexcept = 0;

private:
    bool prepared_ = false;
    int channelCount_ = 1;
    int maxFrames_ = 1;
};

/// A processor that reports how far it is turning the signal down.
class GainReductionMetering {
public:
    virtual ~GainReductionMetering() = default;
    /// dB; a relaxed atomic read, safe from any thread while `process` runs.
    virtual float gainReductionDB() const noexcept = 0;

protected:
    GainReductionMetering() = default;
    GainReductionMetering(const GainReductionMetering&) = default;
    GainReductionMetering& operator=(const GainReductionMetering&) = default;
};

} // namespace harlune
