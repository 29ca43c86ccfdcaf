#pragma once

#include "dsp/effects/CompressorSettings.h"
#include "dsp/effects/ConfigurableEffect.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

namespace harlune {

/// The feed-forward compressor: a peak or RMS detector in dB, the static curve with its soft
/// knee, and a one-pole gain smoother with separate attack and release, all in double; the
/// signal path is float and works a block at a time. Threshold, ratio, knee, makeup and mix
/// glide frame by frame (20 ms) to what `apply` set; detection, link and the time constants
/// change at once. Up to 8 channels; no latency, no tail.
class CompressorProcessor final : public ConfigurableEffect, public GainReductionMetering {
public:
    static constexpr int maxChannels = 8;

    CompressorProcessor();

    /// Takes `.compressor` settings; other kinds are ignored. Sets targets only.
    void apply(const EffectSettings& settings) noexcept override;

    int tailFrames() const override { return 0; }
    int latencyFrames() const override { return 0; }

    /// dB of reduction, positive while the signal is turned down; makeup is not counted.
    float gainReductionDB() const noexcept override;

protected:
    void doPrepare(double sampleRate, int channelCount, int maxFrames) override;
    void doProcess(ChannelSpan channels) noexcept override;
    void doReset() noexcept override;

private:
    /// The gliding levels, as clamped for use.
    struct Levels {
        double thresholdDB = -18;
        double ratio = 4;
        double kneeDB = 6;
        double makeupDB = 0;
        double mix = 1;
        friend bool operator==(const Levels&, const Levels&) = default;
    };

    /// What the processor glides to, from `target_`, with every setting made finite and sane.
    static Levels levelsOf(const CompressorSettings& settings);
    void updateTimeConstants();
    void detect(ChannelSpan channels, bool linked);
    /// Runs one gain computer over detector row `source` (levels in dB while gliding, else the
    /// curve's reduction), writing log2 gains into row `into`; returns the levels at the end.
    Levels computeGains(int source, int row, int frames, int channel, bool gliding, const Levels& goal);
    float* row(int index) { return &scratch_[static_cast<size_t>(index) * static_cast<size_t>(maxFrames_)]; }

    CompressorSettings target_;
    CompressorSettings current_;
    /// Gliding makeup (dB) and mix (0...1); `current_` holds the gliding threshold, ratio, knee.
    double makeupDB_ = 0;
    double mix_ = 1;
    double sampleRate_ = 48000;
    int channelCount_ = 1;
    int maxFrames_ = 0;
    bool prepared_ = false;
    double attackRetention_ = 0;
    double releaseRetention_ = 0;
    double rmsRetention_ = 0;
    double glideRetention_ = 0;
    /// `channelCount_` rows of `maxFrames_`: detector levels, then log2 gains, then gains.
    std::vector<float> scratch_;
    /// The mix of each frame while it glides.
    std::vector<float> mixCurve_;
    /// Per channel: the smoothed gain in dB and the mean square of the RMS detector.
    std::array<double, maxChannels> smoothed_{};
    std::array<double, maxChannels> meanSquare_{};
    /// The meter, a float's bits.
    std::atomic<uint32_t> reductionBits_{0};
};

} // namespace harlune
