#pragma once

#include "dsp/effects/ChorusSettings.h"
#include "dsp/effects/ConfigurableEffect.h"
#include "dsp/effects/Space.h"

#include <array>
#include <cstdint>

namespace harlune {

/// A modulated delay with up to four voices per channel, and a flanger on the same path. The
/// modulation is computed at the 32-frame control tick (the sine four times per channel per
/// tick) and interpolated linearly between ticks; every setting glides there with 50 ms, and a
/// change of mode or voice count fades the voices' gains. Delays are read by the Catmull-Rom
/// cubic and never come closer than 2.5 frames to the write point. No latency; a short tail.
class ChorusProcessor final : public ConfigurableEffect {
public:
    /// One value per voice.
    using Lanes = std::array<float, 4>;

    ChorusProcessor();

    /// Takes `.chorus` settings, others are ignored; the next tick picks them up.
    void apply(const EffectSettings& settings) noexcept override;

    int tailFrames() const override;
    int latencyFrames() const override { return 0; }

protected:
    void doPrepare(double sampleRate, int channelCount, int maxFrames) override;
    void doProcess(ChannelSpan channels) noexcept override;
    void doReset() noexcept override;

private:
    void controlTick();
    /// The voices' delays of every channel at the current LFO phase, into `delayEnd_`.
    void computeDelays();
    void runChannel(int channel, float* samples, int frames);

    ChorusSettings settings_;
    double sampleRate_ = 48000;
    int preparedChannels_ = 1;
    bool isPrepared_ = false;
    /// One line per channel, `lineSize` (a power of two) each.
    SpaceStorage<float> storage_;
    uint32_t lineSize_ = 1;
    /// Wraps at 2^32, a multiple of the line size.
    uint32_t writeIndex_ = 0;
    int controlPhase_ = 0;
    double tickCoefficient_ = 0;
    /// Per channel, frames per voice, at the start and end of the tick.
    SpaceStorage<Lanes> delayStart_;
    SpaceStorage<Lanes> delayEnd_;
    Lanes gainStart_{};
    Lanes gainEnd_{};
    int activeVoices_ = 1;
    /// Cycles, 0...1.
    double lfoPhase_ = 0;
    double baseMs_ = 15;
    double sweep_ = 0;
    double spread_ = 0;
    Lanes voiceGains_{};
    SpaceRamp feedback_;
    SpaceRamp mix_;
};

} // namespace harlune
