#pragma once

#include "dsp/RealFFT.h"
#include "dsp/effects/ConfigurableEffect.h"
#include "dsp/effects/NoiseReductionSettings.h"
#include "dsp/effects/Space.h"

#include <complex>
#include <memory>

namespace harlune {

/// Removes a stationary noise learnt beforehand (`NoiseProfile::learn`), by short-time spectral
/// gains: a Hann STFT at a hop of a quarter, a decision-directed a-priori SNR, a two-scale
/// speech-presence probability, and a log-domain mix of the Wiener gain with a floor.
///
/// The latency is `fftSize` frames; no tail. Without a profile it passes the audio through,
/// sample for sample once four hops have run in bypass. No glides: a new setting or profile
/// takes effect at the next hop. All FFTs run on the audio thread, one pair per channel per hop.
class NoiseReductionProcessor final : public ConfigurableEffect {
public:
    /// The most profile bins kept (a profile of size 65536).
    static constexpr int maxProfileBins = 32769;

    NoiseReductionProcessor();

    /// About 43 ms at any rate: 2048 at 48 kHz, a power of two from 256 to 16384.
    static int fftSize(double sampleRate);

    /// Takes `.noiseReduction` settings; other kinds are ignored. Copies the profile into fixed
    /// storage: no allocation.
    void apply(const EffectSettings& settings) noexcept override;

    int tailFrames() const override { return 0; }
    int latencyFrames() const override { return fftSize_; }

protected:
    void doPrepare(double sampleRate, int channelCount, int maxFrames) override;
    void doProcess(ChannelSpan channels) noexcept override;
    void doReset() noexcept override;

private:
    void updateNoise() noexcept;
    void updateParameters() noexcept;
    void processFrame(int channel, bool bypass) noexcept;
    void computeGains(int channel) noexcept;
    float* perChannel(const SpaceStorage<float>& storage, int channel, int length) const {
        return storage.pointer() + static_cast<ptrdiff_t>(channel) * length;
    }

    float reductionDB_ = 18;
    float sensitivityDB_ = 0;
    float smoothing_ = 0.5f;
    bool outputNoiseOnly_ = false;
    bool hasProfile_ = false;
    SpaceStorage<float> profileStore_;
    int profileBins_ = 0;
    double profileSampleRate_ = 0;
    double profileBinHz_ = 0;

    double sampleRate_ = 48000;
    int preparedChannels_ = 1;
    bool isPrepared_ = false;
    int fftSize_ = 2048;
    int hop_ = 512;
    int binCount_ = 1025;
    std::unique_ptr<RealFFT> fft_;

    SpaceStorage<float> window_;
    SpaceStorage<float> power_;
    SpaceStorage<float> rawGain_;
    SpaceStorage<float> gain_;
    SpaceStorage<float> noise_;
    SpaceStorage<float> inverseNoise_;
    float powerScale_ = 0;
    float synthesisScale_ = 0;

    // Per channel, laid end to end.
    SpaceStorage<float> inputFIFO_;
    SpaceStorage<float> accumulator_;
    SpaceStorage<float> outputFIFO_;
    SpaceStorage<float> previousClean_;
    SpaceStorage<float> smoothedSNR_;
    int hopFill_ = 0;
    int bypassRun_ = 0;

    SpaceStorage<float> xiBuffer_;
    SpaceStorage<float> expBuffer_;
    SpaceStorage<float> presenceBuffer_;
    int globalHalfWidth_ = 1;
    float ddAlpha_ = 0.97f;
    float neighbourWeight_ = 0.125f;
    float gainFloor_ = 0.125f;
};

} // namespace harlune
