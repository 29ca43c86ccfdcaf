#pragma once

#include "dsp/effects/ConfigurableEffect.h"
#include "dsp/effects/GateSettings.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

namespace harlune {

/// The noise gate: a peak envelope with a 20 ms hold and 10 ms decay opens the gate at the
/// threshold and lets it close only under the threshold less the hysteresis, after the hold
/// time. The gain follows a linear position through a smoothstep between 1 and the range, which
/// glides (10 ms) when changed; thresholds, hold and ramps take effect at once, since the
/// position ramp already smooths them. Up to 8 channels; no latency, no tail.
class GateProcessor final : public ConfigurableEffect, public GainReductionMetering {
public:
    static constexpr int maxChannels = 8;

    GateProcessor();

    /// Takes `.gate` settings; other kinds are ignored.
    void apply(const EffectSettings& settings) noexcept override;

    int tailFrames() const override { return 0; }
    int latencyFrames() const override { return 0; }

    /// dB of reduction, positive: a closed gate reads its range.
    float gainReductionDB() const noexcept override;

protected:
    void doPrepare(double sampleRate, int channelCount, int maxFrames) override;
    void doProcess(ChannelSpan channels) noexcept override;
    void doReset() noexcept override;

private:
    void updateDerived();
    /// Moves link state between channel 0 and the others when the link is switched.
    void relink(bool linked, int count);
    /// Runs detector `index` over its level row, leaving 1 (open) or 0 (closed) per frame;
    /// returns 1 or 0 when every frame is so, else -1.
    int detect(int index, int frames);
    /// Moves channel `channel`'s position by the open flags of row `source`, writing gains into
    /// row `into`; returns the last frame's gain and leaves the end range in `rangeEnd_`.
    double ramp(int source, int into, int channel, int frames);
    float* row(int index) { return &gains_[static_cast<size_t>(index) * static_cast<size_t>(maxFrames_)]; }
    void storeMeter(double gain);

    GateSettings settings_;
    double sampleRate_ = 48000;
    int channelCount_ = 0;
    int maxFrames_ = 0;
    bool prepared_ = false;
    /// Linear levels at which the gate opens and under which it may close.
    float openLevel_ = 0;
    float closeLevel_ = 0;
    int holdFrames_ = 0;
    /// Position per frame while opening and closing.
    double attackStep_ = 1;
    double releaseStep_ = 1;
    /// Linear gain of the closed gate.
    double targetRange_ = 0.001;
    int detectorHoldFrames_ = 0;
    float detectorDecay_ = 0;
    double rangeRetention_ = 0;
    // Per channel; with the link on, channel 0's detector serves all.
    std::array<float, maxChannels> envelope_{};
    std::array<int, maxChannels> envelopeHold_{};
    std::array<bool, maxChannels> isOpen_{};
    std::array<int, maxChannels> holdLeft_{};
    /// 0 closed ... 1 open, moved linearly.
    std::array<double, maxChannels> position_{};
    /// The gliding linear floor.
    double range_ = 0.001;
    double rangeEnd_ = 0.001;
    /// `channelCount_` rows of `maxFrames_`: levels, then open flags, then gains.
    std::vector<float> gains_;
    std::atomic<uint32_t> reductionBits_{0};
    bool wasLinked_ = true;
};

} // namespace harlune
