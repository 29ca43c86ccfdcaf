#include "dsp/SpectrumAnalyzer.h"

#include "base/HarluneError.h"
#include "base/Precondition.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <numeric>

namespace harlune {

namespace {

int checkedSize(int fftSize) {
    HARLUNE_PRECONDITION(fftSize >= SpectrumAnalyzer::minimumFFTSize &&
                             fftSize <= SpectrumAnalyzer::maximumFFTSize &&
                             std::has_single_bit(static_cast<unsigned>(fftSize)),
                         "the FFT size must be a power of two from 256 to 65536");
    return fftSize;
}

} // namespace

SpectrumAnalyzer::SpectrumAnalyzer(int fftSize, WindowFunction window)
    : fftSize_(checkedSize(fftSize)), window_(window), setup_(fftSize_),
      windowCoefficients_(coefficients(window, fftSize)), power_(static_cast<size_t>(binCount())),
      accum_(static_cast<size_t>(binCount())) {
    const double sum = std::accumulate(windowCoefficients_.begin(), windowCoefficients_.end(), 0.0);
    scale_ = 1.0 / (sum * sum);
}

void SpectrumAnalyzer::clear() {
    std::fill(accum_.begin(), accum_.end(), 0.0f);
}

void SpectrumAnalyzer::accumulate(const AudioSource& source, int64_t start, std::optional<FrameRange> limit) {
    const int channels = source.channelCount();
    if (!frame_ || frame_->channelCount() != channels)
        frame_.emplace(channels, fftSize_);
    frame_->readZeroPadded(source, {start, start + fftSize_}, limit);
    const int bins = binCount();
    const int nyquist = fftSize_ / 2;
    float* time = setup_.time();
    const std::complex<float>* x = setup_.spectrum();
    for (int c = 0; c < channels; ++c) {
        const float* samples = frame_->channel(c);
        for (int n = 0; n < fftSize_; ++n)
            time[n] = samples[n] * windowCoefficients_[static_cast<size_t>(n)];
        setup_.forward();
        // The bins between DC and Nyquist stand for their negative frequency too.
        power_[0] = std::norm(x[0]);
        for (int k = 1; k < nyquist; ++k)
            power_[static_cast<size_t>(k)] = 4.0f * std::norm(x[k]);
        power_[static_cast<size_t>(nyquist)] = std::norm(x[nyquist]);
        for (int k = 0; k < bins; ++k)
            accum_[static_cast<size_t>(k)] += power_[static_cast<size_t>(k)];
    }
}

std::vector<float> SpectrumAnalyzer::finish(int64_t frames, int channels) {
    const double factor = scale_ / static_cast<double>(std::max<int64_t>(frames * channels, 1));
    std::vector<float> decibels(accum_.size());
    for (size_t k = 0; k < accum_.size(); ++k) {
        const auto db = static_cast<float>(10.0 * std::log10(static_cast<double>(accum_[k]) * factor));
        // NaN fails the comparison and lands on the floor too.
        decibels[k] = db >= floorDB ? db : floorDB;
    }
    return decibels;
}

std::vector<float> SpectrumAnalyzer::spectrum(const AudioSource& source, int64_t centre) {
    clear();
    accumulate(source, centre - fftSize_ / 2, std::nullopt);
    return finish(1, source.channelCount());
}

std::vector<float> SpectrumAnalyzer::averagedSpectrum(const AudioSource& source, FrameRange range,
                                                      int maxFrames,
                                                      std::optional<FunctionRef<bool(double)>> progress) {
    const FrameRange walk = range.clamped(source.fullRange());
    clear();
    if (walk.isEmpty())
        return finish(0, source.channelCount());
    const int64_t hop = fftSize_ / 2;
    const int64_t length = walk.length();
    const int64_t total = length > fftSize_ ? (length - fftSize_) / hop + 1 : 1;
    const int64_t used = std::min<int64_t>(std::max(maxFrames, 1), total);
    for (int64_t i = 0; i < used; ++i) {
        if (progress && !(*progress)(static_cast<double>(i) / static_cast<double>(used)))
            throw HarluneError::cancelled();
        // Frames spread evenly over a long range, not only its start.
        int64_t index = i;
        if (total > maxFrames)
            index = used == 1 ? total / 2
                              : std::llround(static_cast<double>(total - 1) * static_cast<double>(i) /
                                             static_cast<double>(used - 1));
        accumulate(source, walk.lower + index * hop, walk);
    }
    if (progress && !(*progress)(1.0))
        throw HarluneError::cancelled();
    return finish(used, source.channelCount());
}

} // namespace harlune
