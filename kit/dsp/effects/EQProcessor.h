#pragma once

#include "dsp/BiquadCoefficients.h"
#include "dsp/effects/ConfigurableEffect.h"
#include "dsp/effects/EQSettings.h"

#include <array>
#include <vector>

namespace harlune {

/// The eight-band parametric equaliser. Bands may be moved, switched and retyped while audio
/// runs, with no click:
///
/// - a moving band's frequency, gain and Q glide (15 ms one-pole per chunk, frequency and Q on a
///   log scale), and its coefficients move linearly inside each 32-frame chunk;
/// - a band that is switched off, retyped or given a new slope fades out over 20 ms, has its
///   state cleared, and (if still wanted) fades back in from zero state;
/// - a band that has become flat runs 250 ms more so its state rings out, then leaves the chain.
///
/// A still EQ runs the static path: two channels per sweep as two double lanes, four sections
/// per pass. All flat at 0 dB output leaves the buffers untouched. No latency, no tail.
class EQProcessor final : public ConfigurableEffect {
public:
    EQProcessor();

    /// Takes the first 8 bands of `.eq` settings; other kinds are ignored. Sets targets only.
    void apply(const EffectSettings& settings) noexcept override;

    int tailFrames() const override { return 0; }
    int latencyFrames() const override { return 0; }

protected:
    void doPrepare(double sampleRate, int channelCount, int maxFrames) override;
    void doProcess(ChannelSpan channels) noexcept override;
    void doReset() noexcept override;

private:
    static constexpr int bandCount = EQSettings::maxBands;
    static constexpr int sectionsPerBand = 4;
    static constexpr int slotCount = bandCount * sectionsPerBand;
    /// All slots, padded to a multiple of 4 (with room to spare).
    static constexpr int flatCapacity = 35;

    /// What a band should become, as clamped by `apply`.
    struct Target {
        bool enabled = false;
        EQBandType type = EQBandType::lowCut;
        int sections = 1;
        double frequency = 1000;
        double gainDB = 0;
        double q = 0.707;
        double logF = 0;
        double logQ = 0;
    };

    struct Band {
        Target target;
        bool running = false;
        EQBandType type = EQBandType::lowCut;
        int sections = 1;
        double frequency = 1000;
        double gainDB = 0;
        double q = 0.707;
        double logF = 0;
        double logQ = 0;
        /// The band's dry/wet, 0...1.
        double mix = 0;
        /// Frames left until the state of a flat band is cleared.
        int idle = 0;
        bool active = false;
    };

    /// The band's shape becomes its target's at once, with no glide.
    static void jumpToTarget(Band& band) noexcept;
    bool isMoving() const;
    void updateChunk(int frames);
    void runChunk(ChannelSpan channels);
    void flattenStaticChunk();
    void runStaticPair(float* left, float* right, int leftChannel, int rightChannel, int frames);
    void commitChunk();

    void startBand(int band);
    void clearState(int band);
    /// Designs the band's running values into `coef` slots starting at `into`.
    void design(const Band& band, std::array<BiquadCoefficients, slotCount>& into, int bandIndex) const;
    double* stateOf(int channel, int slot) {
        return &state_[static_cast<size_t>((channel * slotCount + slot) * 2)];
    }

    std::array<Band, bandCount> bands_{};
    std::array<BiquadCoefficients, slotCount> coef_{};
    std::array<BiquadCoefficients, slotCount> step_{};
    std::array<BiquadCoefficients, slotCount> coefEnd_{};
    std::array<bool, bandCount> ramping_{};

    // The chunk's active bands, in order.
    std::array<int, bandCount> actSlot_{};
    std::array<int, bandCount> actSections_{};
    std::array<bool, bandCount> actRamp_{};
    std::array<bool, bandCount> actMixing_{};
    std::array<double, bandCount> actMix0_{};
    std::array<double, bandCount> actMixStep_{};
    int activeCount_ = 0;

    // The static chunk's cascade laid out flat; slot -1 is padding.
    std::array<BiquadCoefficients, flatCapacity> flatCoef_{};
    std::array<int, flatCapacity> flatSlot_{};
    int flatCount_ = 0;
    /// Per section: s1 of both lanes, then s2 of both lanes.
    std::array<std::array<double, 4>, flatCapacity> pairState_{};
    /// `maxFrames` two-lane frames.
    std::vector<std::array<double, 2>> pairBuffer_;

    /// Per channel, per slot: the two transposed direct form II state words.
    std::vector<double> state_;
    int maxFrames_ = 0;
    int channelCount_ = 0;
    double sampleRate_ = 48000;
    bool prepared_ = false;
    double targetOutDB_ = 0;
    double outDB_ = 0;
    double gainStart_ = 1;
    double gainStep_ = 0;
};

} // namespace harlune
