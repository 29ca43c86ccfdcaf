#pragma once

#include "base/AudioSource.h"

namespace harlune {

/// One effect as a running object. The same processor runs offline (`EffectRenderer`) and live
/// on the audio thread (the effects rack), so the lifecycle is strict:
///
/// - `prepare` allocates everything the processor will ever use, sized for `maxFrames`, then
///   resets. It may throw, and never runs on the audio thread. It may be called again with a
///   new rate or channel count, which replaces the buffers.
/// - `process` works in place on non-interleaved channels. It runs on the audio thread: it
///   allocates nothing, takes no lock, does no I/O and cannot fail. It uses the lesser of its
///   prepared channels and the channels given; the rest pass unchanged. A `frameCount` above
///   `maxFrames` is legal.
/// - `reset` clears all signal state, and every gliding parameter jumps to its target.
///
/// Processors are shared (`std::shared_ptr`); a chain taken off the audio thread is released on
/// the main thread.
class EffectProcessor {
public:
    virtual ~EffectProcessor() = default;

    /// Hz, channels, and the largest buffer `process` will usually see.
    virtual void prepare(double sampleRate, int channelCount, int maxFrames) = 0;
    /// In place; one pointer per channel, each with `frameCount` floats.
    virtual void process(ChannelPointers channels, int frameCount) noexcept = 0;
    virtual void reset() noexcept = 0;
    /// Frames of output that may follow the end of the input.
    virtual int tailFrames() const = 0;
    /// Frames by which the output lags the input.
    virtual int latencyFrames() const = 0;

protected:
    EffectProcessor() = default;
    EffectProcessor(const EffectProcessor&) = default;
    EffectProcessor& operator=(const EffectProcessor&) = default;
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
