#pragma once

#include "dsp/effects/ConfigurableEffect.h"
#include "dsp/effects/ReverbSettings.h"
#include "dsp/effects/Space.h"

#include <array>
#include <cstdint>

namespace harlune {

/// The algorithmic reverb: a mono input stage (low cut, pre-delay, four allpass diffusers) feeds
/// a 16-line feedback delay network mixed by a Hadamard matrix; per-channel output rows and
/// early-reflection taps give decorrelated channels. No latency; the tail follows the decay.
///
/// Every parameter may move while it runs: `apply` only sets targets, which the 32-frame control
/// tick glides to (50 ms; 300 ms for the size, which bends the line lengths; per frame for the
/// pre-delay). At most 8 channels.
class ReverbProcessor final : public ConfigurableEffect {
public:
    static constexpr int lineCount = 16;
    static constexpr int maxChannels = 8;
    static constexpr int earlyTaps = 8;

    ReverbProcessor();

    /// Takes `.reverb` settings; other kinds are ignored.
    void apply(const EffectSettings& settings) noexcept override;

    int tailFrames() const override;
    int latencyFrames() const override { return 0; }

    /// The sixteen line lengths in frames, as dealt to the lines, for the settings' size at `sampleRate`.
    static std::array<int, lineCount> lineLengths(double size, double sampleRate) noexcept;

protected:
    void doPrepare(double sampleRate, int channelCount, int maxFrames) override;
    void doProcess(ChannelSpan channels) noexcept override;
    void doReset() noexcept override;

private:
    using Lines = std::array<float, lineCount>;

    struct Targets {
        double preDelay = 2;
        double lowCut = 100;
        float diffusion = 0.8f;
        Lines lengths{};
        Lines gain{};
        Lines pole{};
        float outputGain = 0;
        float width = 1;
        float mix = 0.25f;
    };

    Targets targets() const noexcept;
    void controlTick() noexcept;
    void runStretch(ChannelSpan channels, int offset, int frames) noexcept;

    ReverbSettings settings_;
    double sampleRate_ = 48000;
    int preparedChannels_ = 1;
    bool isPrepared_ = false;

    SpaceStorage<float> preDelayBuffer_;
    uint32_t preDelayMask_ = 0;
    double preDelay_ = 2;
    double preDelayTarget_ = 2;
    double preDelayGlide_ = 0;

    SpaceStorage<float> diffuserBuffer_;
    uint32_t diffuserMask_ = 0;
    std::array<int32_t, 4> diffuserLengths_{};
    std::array<float, 4> diffuserGain_{};

    SpaceStorage<float> lineBuffer_;
    uint32_t lineSize_ = 1;
    uint32_t lineStride_ = 1;

    alignas(64) Lines baseLength_{};
    alignas(64) Lines delayStart_{};
    alignas(64) Lines delayEnd_{};
    alignas(64) Lines modPhase_{};
    alignas(64) Lines modIncrement_{};
    float modDepth_ = 0;
    alignas(64) Lines allpassState_{};
    alignas(64) Lines filterState_{};
    alignas(64) Lines lineGain_{};
    alignas(64) Lines linePole_{};
    alignas(64) Lines inputVector_{};
    SpaceStorage<Lines> outputRows_;

    SpaceStorage<float> earlyBuffer_;
    uint32_t earlyMask_ = 0;
    std::array<int32_t, maxChannels * earlyTaps> earlyDelay_{};
    std::array<float, maxChannels * earlyTaps> earlyGain_{};

    alignas(64) std::array<float, spaceTickFrames> chunkInput_{};
    alignas(64) std::array<Lines, spaceTickFrames> chunkLines_{};
    // Per frame and line, the two taps of the fractional read and its allpass coefficient.
    alignas(64) std::array<Lines, spaceTickFrames> tapNear_{};
    alignas(64) std::array<Lines, spaceTickFrames> tapFar_{};
    alignas(64) std::array<Lines, spaceTickFrames> kappa_{};
    alignas(64) std::array<std::array<int32_t, lineCount>, spaceTickFrames> readOffset_{};

    SpaceSVFState lowCut_;
    double lowCutHz_ = 100;
    SpaceSVFCoefficients lowCutCoefficients_;

    uint32_t writeIndex_ = 0;
    int controlPhase_ = 0;
    double tickCoefficient_ = 0;
    double sizeCoefficient_ = 0;
    SpaceRamp outputGain_;
    SpaceRamp width_;
    SpaceRamp mix_;
    float diffusion_ = 0.8f;
    Targets target_;
};

} // namespace harlune
