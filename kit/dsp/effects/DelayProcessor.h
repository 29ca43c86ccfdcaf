#pragma once

#include "dsp/effects/ConfigurableEffect.h"
#include "dsp/effects/DelaySettings.h"
#include "dsp/effects/Space.h"

#include <array>
#include <cstdint>

namespace harlune {

/// A stereo feedback delay: separate left and right times, ping-pong, low and high cut inside the
/// repeat path, and tape-like glides of the time (the read point slides through two cascaded
/// 100 ms stages, so the pitch bends and nothing clicks). Lines go in pairs, even index left, odd
/// index right; a mono source without ping-pong uses the left line only.
///
/// Feedback, mix and the cutoffs glide at a 32-frame control tick (30 ms), where the filters are
/// designed; the frames between ticks take linear ramps. No latency; the tail lasts until the
/// repeats are 60 dB down (at most 30 s).
class DelayProcessor final : public ConfigurableEffect {
public:
    DelayProcessor();

    /// Takes `.delay` settings, others are ignored. When prepared, the lines' times start to glide
    /// to the new values at once; the rest follows at the next tick.
    void apply(const EffectSettings& settings) noexcept override;

    int tailFrames() const override;
    int latencyFrames() const override { return 0; }

protected:
    void doPrepare(double sampleRate, int channelCount, int maxFrames) override;
    void doProcess(ChannelSpan channels) noexcept override;
    void doReset() noexcept override;

private:
    /// One delay line's state; times in frames.
    struct Line {
        double delay = 2;
        double glide = 2;
        double target = 2;
        SpaceSVFState lowCut;
        SpaceSVFState highCut;
    };

    /// The delay target of line `index`, in frames.
    double targetFrames(int index) const;
    void retarget();
    void controlTick();
    /// One stretch of frames inside a tick, for the pair of lines from `left` (even).
    void runPair(int left, float* inLeft, float* inRight, int frames);
    /// Whether the lines from `first` sit at their targets, with nothing to glide.
    bool isStill(int first, int count) const;
    template <size_t count, bool still> void runLines(int first, std::array<float*, 2> samples, int frames);
    template <size_t count> using StretchLanes = std::array<std::array<float, spaceTickFrames>, count>;
    /// Whether the lines from `first` are long enough for `readFiltered`.
    bool canRunInPasses(int first, int count) const;
    template <size_t count> void readFiltered(int first, int frames, StretchLanes<count>& wet);
    template <size_t count> void runStillLines(int first, std::array<float*, 2> samples, int frames);
    void runStillPingPong(int left, float* inLeft, float* inRight, int frames);
    void runPingPong(int left, float* inLeft, float* inRight, int frames);

    DelaySettings settings_;
    double sampleRate_ = 48000;
    int preparedChannels_ = 1;
    bool isPrepared_ = false;
    /// All lines end to end; each line's length is a power of two.
    SpaceStorage<float> storage_;
    SpaceStorage<uint32_t> offsets_;
    SpaceStorage<uint32_t> masks_;
    SpaceStorage<Line> lines_;
    int lineCount_ = 0;
    /// Wraps at 2^32, a multiple of every line's length.
    uint32_t writeIndex_ = 0;
    int controlPhase_ = 0;
    /// Per frame, per glide stage.
    double glideCoefficient_ = 0;
    SpaceRamp feedback_;
    SpaceRamp mix_;
    /// Hz, gliding on a log scale.
    double lowCutHz_ = 80;
    double highCutHz_ = 8000;
    /// Per tick.
    double tickCoefficient_ = 0;
    SpaceSVFCoefficients lowCutCoefficients_;
    SpaceSVFCoefficients highCutCoefficients_;
};

} // namespace harlune
