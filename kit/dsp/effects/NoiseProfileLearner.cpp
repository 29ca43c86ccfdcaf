// NoiseProfile::learn: the mean Hann-windowed power spectrum of a stretch of noise.
#include "base/AudioSource.h"
#include "base/FrameRange.h"
#include "base/HarluneError.h"
#include "dsp/Buffers.h"
#include "dsp/RealFFT.h"
#include "dsp/effects/NoiseReductionSettings.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>

namespace harlune {

NoiseProfile NoiseProfile::learn(const AudioSource& source, FrameRange range, int fftSize) {
    const double exponent = std::round(std::log2(std::max(fftSize, 1)));
    const int size = 1 << static_cast<int>(std::clamp(exponent, 8.0, 16.0));
    const int bins = size / 2 + 1;
    NoiseProfile profile{size, source.sampleRate(), std::vector<float>(static_cast<size_t>(bins), 0.0f)};
    const FrameRange clipped{std::max<int64_t>(range.lower, 0), std::min(range.upper, source.frameCount())};
    if (clipped.isEmpty() || source.channelCount() < 1)
        return profile;
    std::unique_ptr<RealFFT> fft;
    try {
        fft = std::make_unique<RealFFT>(size);
    } catch (const HarluneError&) {
        return profile;
    }

    std::vector<float> window(static_cast<size_t>(size));
    double sumOfSquares = 0;
    for (int i = 0; i < size; ++i) {
        const double w = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * i / size);
        window[static_cast<size_t>(i)] = static_cast<float>(w);
        sumOfSquares += w * w;
    }

    // Whole frames at a hop of half the size; a range shorter than one frame is read once,
    // padded with silence.
    const int hop = size / 2;
    const int channels = source.channelCount();
    ChannelBuffers buffers(channels, size);
    std::vector<double> sum(static_cast<size_t>(bins), 0.0);
    int64_t frameCount = 0;
    for (int64_t start = clipped.lower; start == clipped.lower || start + size <= clipped.upper;
         start += hop) {
        buffers.readZeroPadded(source, {start, start + size}, clipped);
        for (int c = 0; c < channels; ++c) {
            const float* samples = buffers.channel(c);
            float* time = fft->time();
            for (int i = 0; i < size; ++i)
                time[i] = samples[i] * window[static_cast<size_t>(i)];
            fft->forward();
            const std::complex<float>* spectrum = fft->spectrum();
            for (int b = 0; b < bins; ++b)
                sum[static_cast<size_t>(b)] += std::norm(spectrum[b]);
            ++frameCount;
        }
        if (start + size >= clipped.upper)
            break;
    }
    const double scale = 1 / (sumOfSquares * static_cast<double>(frameCount));
    for (int b = 0; b < bins; ++b)
        profile.binPower[static_cast<size_t>(b)] = static_cast<float>(sum[static_cast<size_t>(b)] * scale);
    return profile;
}

} // namespace harlune
