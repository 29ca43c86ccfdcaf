#include "dsp/effects/NoiseReductionProcessor.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace harlune {

namespace {

float clampOr(double value, double lo, double hi, double fallback) {
    return static_cast<float>(std::isfinite(value) ? std::clamp(value, lo, hi) : fallback);
}

// The probability that a smoothed a-priori SNR means speech (or any wanted signal): 0 at -10 dB
// and below, 1 at -5 dB and above, log-linear between.
float presenceProbability(double snr) {
    if (snr <= 0.1)
        return 0;
    if (snr >= 0.316)
        return 1;
    return std::log10(static_cast<float>(snr * 10)) * (1 / 0.4996871f);
}

} // namespace

NoiseReductionProcessor::NoiseReductionProcessor() : profileStore_(maxProfileBins) {
    apply(NoiseReductionSettings{});
}

int NoiseReductionProcessor::fftSize(double sampleRate) {
    const double exponent = std::round(std::log2(std::max(sampleRate * 2048 / 48000, 1.0)));
    return 1 << static_cast<int>(std::clamp(exponent, 8.0, 14.0));
}

void NoiseReductionProcessor::apply(const EffectSettings& settings) noexcept {
    const auto* nr = settings.as<NoiseReductionSettings>();
    if (nr == nullptr)
        return;
    reductionDB_ = clampOr(nr->reductionDB, 0, 48, 18);
    sensitivityDB_ = clampOr(nr->sensitivityDB, -12, 12, 0);
    smoothing_ = clampOr(nr->smoothing, 0, 1, 0.5);
    outputNoiseOnly_ = nr->outputNoiseOnly;
    if (nr->profile && !nr->profile->binPower.empty()) {
        const NoiseProfile& profile = *nr->profile;
        profileBins_ = static_cast<int>(std::min<size_t>(profile.binPower.size(), maxProfileBins));
        for (int b = 0; b < profileBins_; ++b) {
            const float value = profile.binPower[static_cast<size_t>(b)];
            profileStore_[b] = std::isfinite(value) ? std::max(value, 0.0f) : 0.0f;
        }
        profileSampleRate_ =
            std::isfinite(profile.sampleRate) && profile.sampleRate > 0 ? profile.sampleRate : sampleRate_;
        profileBinHz_ = profileBins_ > 1 ? profileSampleRate_ / 2 / (profileBins_ - 1) : profileSampleRate_;
        hasProfile_ = true;
    } else {
        hasProfile_ = false;
    }
    updateNoise();
    updateParameters();
}

void NoiseReductionProcessor::doPrepare(double sampleRate, int channelCount, int) {
    isPrepared_ = false;
    fft_.reset();
    const double r = sampleRate > 0 ? sampleRate : 48000;
    sampleRate_ = r;
    preparedChannels_ = std::max(1, channelCount);
    fftSize_ = fftSize(r);
    hop_ = fftSize_ / 4;
    binCount_ = fftSize_ / 2 + 1;
    fft_ = std::make_unique<RealFFT>(fftSize_);

    window_ = SpaceStorage<float>(fftSize_);
    double sumOfSquares = 0;
    for (int i = 0; i < fftSize_; ++i) {
        const double w = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * i / fftSize_);
        window_[i] = static_cast<float>(w);
        sumOfSquares += w * w;
    }
    // FFTW's forward sum is unscaled, so a bin's |X|² / Σw² is the power of the windowed noise;
    // an inverse after a forward is N times the input, and the squared Hann window overlaps to
    // 3/2 at a hop of a quarter.
    powerScale_ = static_cast<float>(1 / sumOfSquares);
    synthesisScale_ = static_cast<float>(2.0 / (3.0 * fftSize_));

    const int channels = preparedChannels_;
    power_ = SpaceStorage<float>(binCount_);
    rawGain_ = SpaceStorage<float>(binCount_);
    gain_ = SpaceStorage<float>(binCount_);
    noise_ = SpaceStorage<float>(binCount_);
    inverseNoise_ = SpaceStorage<float>(binCount_);
    xiBuffer_ = SpaceStorage<float>(binCount_);
    expBuffer_ = SpaceStorage<float>(binCount_);
    presenceBuffer_ = SpaceStorage<float>(binCount_);
    inputFIFO_ = SpaceStorage<float>(int64_t{channels} * fftSize_);
    accumulator_ = SpaceStorage<float>(int64_t{channels} * fftSize_);
    outputFIFO_ = SpaceStorage<float>(int64_t{channels} * hop_);
    previousClean_ = SpaceStorage<float>(int64_t{channels} * binCount_);
    smoothedSNR_ = SpaceStorage<float>(int64_t{channels} * binCount_);
    globalHalfWidth_ = std::max(1, static_cast<int>(std::lround(360 / (r / fftSize_))));
    isPrepared_ = true;
    updateNoise();
    updateParameters();
}

void NoiseReductionProcessor::doReset() noexcept {
    if (!isPrepared_)
        return;
    inputFIFO_.clear();
    accumulator_.clear();
    outputFIFO_.clear();
    previousClean_.clear();
    smoothedSNR_.clear();
    hopFill_ = 0;
    bypassRun_ = hasProfile_ ? 0 : 4;
}

// The profile's bins mapped onto this processor's, whose size and rate may differ.
void NoiseReductionProcessor::updateNoise() noexcept {
    if (!isPrepared_)
        return;
    if (!hasProfile_) {
        noise_.clear();
        return;
    }
    const double q = (sampleRate_ / fftSize_) / profileBinHz_;
    const double scale = sampleRate_ / profileSampleRate_;
    const int last = profileBins_ - 1;
    for (int b = 0; b < binCount_; ++b) {
        const double u = q * b;
        double value = 0;
        if (q > 1) {
            const int lo = std::max(static_cast<int>(std::ceil(u - q / 2)), 0);
            const int hi = std::min(static_cast<int>(std::floor(u + q / 2)), last);
            if (lo > hi) {
                value = profileStore_[std::clamp(static_cast<int>(std::lround(u)), 0, last)];
            } else {
                double sum = 0;
                for (int i = lo; i <= hi; ++i)
                    sum += profileStore_[i];
                value = sum / (hi - lo + 1);
            }
        } else {
            const int i = static_cast<int>(std::floor(u));
            if (i >= last) {
                value = profileStore_[last];
            } else {
                const double t = u - i;
                value = (1 - t) * profileStore_[i] + t * profileStore_[i + 1];
            }
        }
        noise_[b] = static_cast<float>(scale * value);
    }
}

void NoiseReductionProcessor::updateParameters() noexcept {
    ddAlpha_ = 0.95f + 0.04f * smoothing_;
    neighbourWeight_ = 0.25f * smoothing_;
    gainFloor_ = std::pow(10.0f, -reductionDB_ / 20);
    if (!isPrepared_)
        return;
    const float sensitivity = std::pow(10.0f, sensitivityDB_ / 10);
    for (int b = 0; b < binCount_; ++b)
        inverseNoise_[b] = 1 / std::max(noise_[b] * sensitivity, 1e-30f);
}

void NoiseReductionProcessor::doProcess(ChannelSpan channels) noexcept {
    if (!isPrepared_ || channels.frameCount() < 1)
        return;
    const int channelCount = std::min(preparedChannels_, channels.channelCount());
    const int frames = channels.frameCount();
    int done = 0;
    while (done < frames) {
        const int count = std::min(hop_ - hopFill_, frames - done);
        for (int c = 0; c < channelCount; ++c) {
            float* in = perChannel(inputFIFO_, c, fftSize_) + (fftSize_ - hop_ + hopFill_);
            const float* out = perChannel(outputFIFO_, c, hop_) + hopFill_;
            float* samples = channels.channel(c) + done;
            for (int i = 0; i < count; ++i) {
                in[i] = samples[i];
                samples[i] = out[i];
            }
        }
        hopFill_ += count;
        done += count;
        if (hopFill_ == hop_) {
            hopFill_ = 0;
            bypassRun_ = hasProfile_ ? 0 : std::min(bypassRun_ + 1, 1000);
            for (int c = 0; c < channelCount; ++c)
                processFrame(c, !hasProfile_);
        }
    }
}

void NoiseReductionProcessor::processFrame(int channel, bool bypass) noexcept {
    float* in = perChannel(inputFIFO_, channel, fftSize_);
    float* accumulator = perChannel(accumulator_, channel, fftSize_);
    float* out = perChannel(outputFIFO_, channel, hop_);
    const float* window = window_.pointer();
    float* frame = fft_->time();
    const int n = fftSize_;
    for (int i = 0; i < n; ++i)
        frame[i] = in[i] * window[i];
    if (!bypass) {
        fft_->forward();
        computeGains(channel);
        std::complex<float>* spectrum = fft_->spectrum();
        const float* gain = gain_.pointer();
        for (int b = 0; b < binCount_; ++b)
            spectrum[b] *= gain[b];
        fft_->inverse();
        const float scale = synthesisScale_;
        for (int i = 0; i < n; ++i)
            accumulator[i] += frame[i] * window[i] * scale;
    } else {
        // Keeps the overlap-add running through a change between processing and bypass.
        for (int i = 0; i < n; ++i)
            accumulator[i] += frame[i] * window[i] * (2.0f / 3.0f);
    }
    if (bypass && bypassRun_ >= 4) {
        // The accumulator holds settled bypass only: the input itself is exact.
        for (int i = 0; i < hop_; ++i)
            out[i] = outputNoiseOnly_ ? 0.0f : in[i];
    } else if (outputNoiseOnly_) {
        // What was taken out, with the sign of clean minus input.
        for (int i = 0; i < hop_; ++i)
            out[i] = accumulator[i] - in[i];
    } else {
        std::copy(accumulator, accumulator + hop_, out);
    }
    std::copy(accumulator + hop_, accumulator + n, accumulator);
    std::fill(accumulator + (n - hop_), accumulator + n, 0.0f);
    std::copy(in + hop_, in + n, in);
}

void NoiseReductionProcessor::computeGains(int channel) noexcept {
    const int bins = binCount_;
    const std::complex<float>* spectrum = fft_->spectrum();
    float* power = power_.pointer();
    float* raw = rawGain_.pointer();
    float* gain = gain_.pointer();
    float* xiOf = xiBuffer_.pointer();
    float* expOf = expBuffer_.pointer();
    float* presence = presenceBuffer_.pointer();
    const float* inverseNoise = inverseNoise_.pointer();
    float* previousClean = perChannel(previousClean_, channel, bins);
    float* smoothed = perChannel(smoothedSNR_, channel, bins);

    for (int b = 0; b < bins; ++b)
        power[b] = std::norm(spectrum[b]) * powerScale_;

    const float alpha = ddAlpha_;
    for (int b = 0; b < bins; ++b) {
        const float gamma = inverseNoise[b] * power[b];
        const float xi = alpha * inverseNoise[b] * previousClean[b] + (1 - alpha) * std::max(gamma - 1, 0.0f);
        const float w = xi / (xi + 1);
        raw[b] = w;
        previousClean[b] = power[b] * w * w;
        xiOf[b] = xi;
        expOf[b] = std::exp(-gamma * w);
        smoothed[b] = 0.7f * smoothed[b] + 0.3f * xi;
    }

    // Presence: the smoothed SNR over three bins and over 360 Hz each way, both needed.
    const int half = globalHalfWidth_;
    double globalSum = 0;
    int globalCount = 0;
    for (int i = 0; i <= std::min(half, bins - 1); ++i) {
        globalSum += smoothed[i];
        ++globalCount;
    }
    for (int b = 0; b < bins; ++b) {
        double localSum = smoothed[b];
        int localCount = 1;
        if (b > 0) {
            localSum += smoothed[b - 1];
            ++localCount;
        }
        if (b + 1 < bins) {
            localSum += smoothed[b + 1];
            ++localCount;
        }
        const float local = presenceProbability(localSum / localCount);
        const float global = presenceProbability(globalSum / globalCount);
        const float absence = std::min(1 - local * global, 0.98f);
        presence[b] = 1 / (1 + (absence / (1 - absence)) * (1 + xiOf[b]) * expOf[b]);
        if (b + half + 1 < bins) {
            globalSum += smoothed[b + half + 1];
            ++globalCount;
        }
        if (b - half >= 0) {
            globalSum -= smoothed[b - half];
            --globalCount;
        }
    }

    // Frequency smoothing of the Wiener gain; at the ends the one neighbour counts double.
    const float n = neighbourWeight_;
    const float centre = 1 - 2 * n;
    for (int b = 0; b < bins; ++b) {
        const float left = b > 0 ? raw[b - 1] : raw[std::min(1, bins - 1)];
        const float right = b + 1 < bins ? raw[b + 1] : raw[std::max(bins - 2, 0)];
        gain[b] = std::max(centre * raw[b] + n * (left + right), 1e-12f);
    }

    // The log-domain mix with the floor, weighted by presence, then the floor itself.
    const float logFloor = std::log(gainFloor_);
    for (int b = 0; b < bins; ++b) {
        const float p = presence[b];
        gain[b] = std::max(std::exp(p * std::log(gain[b]) + (1 - p) * logFloor), gainFloor_);
    }
}

} // namespace harlune
