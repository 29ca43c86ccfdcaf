#pragma once

#include "dsp/BiquadCoefficients.h"
#include "dsp/effects/ConfigurableEffect.h"
#include "dsp/effects/DistortionSettings.h"
#include "dsp/effects/Oversampler4x.h"

#include <array>
#include <vector>

namespace harlune {

/// The saturator: a waveshaper (soft, tube or hard curve) run at four times the rate so that its
/// harmonics do not fold back, or a bit crusher at the base rate; then a 5 Hz DC blocker, a
/// low-pass tone filter, the output level and a dry mix.
///
/// The latency is 47 frames in every mode: the dry signal runs through a 47-frame line that
/// matches the oversampler exactly, and the crusher reads that delayed signal too, so a change
/// of mode (a 20 ms crossfade) and any mix are free of comb filtering. Drive, tone, output and
/// mix glide with a 20 ms time constant at block rate, linearly inside each block (32-frame
/// pieces while the tone, output or mix move). Up to 8 channels; more pass unchanged. No tail.
class DistortionProcessor final : public ConfigurableEffect {
public:
    static constexpr int maxChannels = 8;

    DistortionProcessor();

    /// Takes `.distortion` settings, ignores every other kind. Sets targets only.
    void apply(const EffectSettings& settings) noexcept override;

    int tailFrames() const override { return 0; }
    int latencyFrames() const override { return Oversampler4x::latencyFrames; }

protected:
    void doPrepare(double sampleRate, int channelCount, int maxFrames) override;
    void doProcess(ChannelSpan channels) noexcept override;
    void doReset() noexcept override;

private:
    static constexpr int dryDelay = Oversampler4x::latencyFrames;

    /// The settings as the signal uses them: clamped, with non-finite values replaced.
    struct Targets {
        double driveDB = 0;
        double toneLogHz = 0;
        double outputDB = 0;
        double mix = 1;
    };
    Targets clampedTargets() const;
    void snapToTarget();
    static BiquadCoefficients toneCoefficients(double logHz, double sampleRate);
    static bool isOversampled(SaturationMode mode) { return mode != SaturationMode::bitcrush; }

    void runChannel(int channel, const float* input, int frames, bool needOS, bool needCrush, bool twoCurves,
                    double fadeEnd) noexcept;
    void mixAndFilter(ChannelSpan channels) noexcept;

    DistortionSettings target_;
    double sampleRate_ = 48000;
    int channelCount_ = 1;
    int maxFrames_ = 1;
    bool prepared_ = false;
    // Gliding, in the units the signal uses.
    double driveDB_ = 0;
    double toneLogHz_ = 0;
    double outputDB_ = 0;
    double mix_ = 1;
    SaturationMode mode_ = SaturationMode::soft;
    SaturationMode previousMode_ = SaturationMode::soft;
    /// 0...1; 1 when no change of mode is under way.
    double fade_ = 1;
    float crushLevels_ = 128;
    double crushFactor_ = 1;
    std::vector<Oversampler4x> oversamplers_;
    /// Per channel, `dryDelay` samples.
    std::vector<std::array<float, dryDelay>> dryLine_;
    /// Channel c at c * `maxFrames`.
    std::vector<float> dryBuffer_;
    std::vector<float> wetBuffer_;
    /// The driven input, then the other path's output in a crossfade.
    std::vector<float> altWet_;
    /// The previous curve's copy of the oversampled block in a crossfade between two curves.
    std::vector<float> altOS_;
    /// The drive gain per frame of the block.
    std::vector<float> driveRamp_;
    std::array<int, maxChannels> dryPos_{};
    std::array<float, maxChannels> crushHold_{};
    std::array<double, maxChannels> crushPhase_{};
    /// Per channel: DC blocker x1, y1; tone filter s1, s2.
    std::array<std::array<double, 4>, maxChannels> filterState_{};
    BiquadCoefficients tone_;
    double dcRetention_ = 0;
};

} // namespace harlune
