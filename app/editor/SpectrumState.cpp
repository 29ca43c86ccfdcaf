#include "editor/SpectrumState.h"

#include <algorithm>
#include <bit>

namespace harlune {

namespace {

// Behind the user's own long operations, beside the loudness measurements.
constexpr int averagePriority = -1;

} // namespace

SpectrumState::SpectrumState(QObject* parent)
    : QObject(parent),
      averageTask_(*this, {averageDelayMs, averagePriority}, [this] { return generation_; }) {}

void SpectrumState::setFFTSize(int size) {
    if (size == fftSize_ || size < SpectrumAnalyzer::minimumFFTSize ||
        size > SpectrumAnalyzer::maximumFFTSize || !std::has_single_bit(static_cast<unsigned>(size)))
        return;
    fftSize_ = size;
    Q_EMIT settingsChanged();
}

void SpectrumState::setFrequencyScale(FrequencyScale scale) {
    if (scale == frequencyScale_)
        return;
    frequencyScale_ = scale;
    Q_EMIT settingsChanged();
}

void SpectrumState::setAmplitudeScale(AmplitudeScale scale) {
    if (scale == amplitudeScale_)
        return;
    amplitudeScale_ = scale;
    Q_EMIT settingsChanged();
}

void SpectrumState::setHoldPeaks(bool hold) {
    if (hold == holdPeaks_)
        return;
    holdPeaks_ = hold;
    peakHold_ = spectrum_;
    Q_EMIT settingsChanged();
    Q_EMIT spectrumChanged();
}

SpectrumAnalyzer& SpectrumState::ensureAnalyzer() {
    if (!analyzer_ || analyzer_->fftSize() != fftSize_)
        analyzer_ = std::make_unique<SpectrumAnalyzer>(fftSize_, WindowFunction::blackmanHarris);
    return *analyzer_;
}

void SpectrumState::update(const AudioSource& source, int64_t centre) {
    ++generation_;
    averageTask_.cancel();
    if (source.channelCount() <= 0) {
        clear();
        return;
    }
    publish(ensureAnalyzer().spectrum(source, centre), source.sampleRate());
}

void SpectrumState::updateAverage(std::shared_ptr<const AudioSource> source, FrameRange range) {
    ++generation_;
    if (!source || source->channelCount() <= 0) {
        averageTask_.cancel();
        clear();
        return;
    }
    const int size = fftSize_;
    const double rate = source->sampleRate();
    averageTask_.start<std::vector<float>>(
        [source = std::move(source), range, size](const ProgressToken& token) {
            // The job's own analyser: one thread at a time uses one.
            SpectrumAnalyzer analyzer(size, WindowFunction::blackmanHarris);
            const auto goOn = [&token](double) {
                return !token.isCancelled();
            };
            return analyzer.averagedSpectrum(*source, range, averageMaxFrames,
                                             FunctionRef<bool(double)>(goOn));
        },
        [this, rate](std::vector<float> average) { publish(std::move(average), rate); });
}

void SpectrumState::clear() {
    ++generation_;
    averageTask_.cancel();
    if (spectrum_.empty() && peakHold_.empty())
        return;
    spectrum_.clear();
    peakHold_.clear();
    Q_EMIT spectrumChanged();
}

void SpectrumState::publish(std::vector<float> spectrum, double sampleRate) {
    spectrum_ = std::move(spectrum);
    sampleRate_ = sampleRate;
    accumulateHold();
    Q_EMIT spectrumChanged();
}

void SpectrumState::accumulateHold() {
    if (holdPeaks_ && peakHold_.size() == spectrum_.size()) {
        for (size_t k = 0; k < spectrum_.size(); ++k)
            peakHold_[k] = std::max(peakHold_[k], spectrum_[k]);
        return;
    }
    peakHold_ = spectrum_;
}

} // namespace harlune
