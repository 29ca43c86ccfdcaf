#pragma once

#include "base/AudioSource.h"
#include "dsp/SpectrumAnalyzer.h"
#include "editor/BackgroundJob.h"

#include <QObject>
#include <cstdint>
#include <memory>
#include <vector>

namespace harlune {

enum class FrequencyScale { linear, logarithmic };
enum class AmplitudeScale { decibels, linear };

/// What the spectrum view shows and how: the latest spectrum (dB per bin, Blackman-Harris
/// window), its peak hold, and the display choices. Main thread only.
///
/// A spectrum at one point is computed at once (one FFT); an average over a range runs as a
/// background job after a short debounce, and any later request, of either kind, drops it.
class SpectrumState final : public QObject {
    Q_OBJECT

public:
    static constexpr int averageDelayMs = 80;
    static constexpr int averageMaxFrames = 256;
    static constexpr int defaultFFTSize = 8192;

    explicit SpectrumState(QObject* parent = nullptr);

    int fftSize() const { return fftSize_; }
    /// A power of two from 256 to 65536; anything else is ignored.
    void setFFTSize(int size);
    FrequencyScale frequencyScale() const { return frequencyScale_; }
    void setFrequencyScale(FrequencyScale scale);
    AmplitudeScale amplitudeScale() const { return amplitudeScale_; }
    void setAmplitudeScale(AmplitudeScale scale);
    bool holdPeaks() const { return holdPeaks_; }
    /// Either way the hold starts again from the spectrum shown.
    void setHoldPeaks(bool hold);

    /// dB per bin; empty before the first spectrum.
    const std::vector<float>& spectrum() const { return spectrum_; }
    /// The bin-by-bin maximum since the hold started, or the spectrum when not holding.
    const std::vector<float>& peakHold() const { return peakHold_; }
    /// Hz of the audio the spectrum came from.
    double sampleRate() const { return sampleRate_; }
    /// An average is on its way.
    bool isAveraging() const { return averageTask_.isRunning(); }

    /// The frame centred on `centre`, computed now.
    void update(const AudioSource& source, int64_t centre);
    /// The average over `range`, published when the job ends. `source` is shared with the job.
    void updateAverage(std::shared_ptr<const AudioSource> source, FrameRange range);
    /// No audio: the spectrum and the hold are emptied.
    void clear();

Q_SIGNALS:
    /// FFT size, a scale or the hold setting changed.
    void settingsChanged();
    void spectrumChanged();

private:
    SpectrumAnalyzer& ensureAnalyzer();
    void publish(std::vector<float> spectrum, double sampleRate);
    void accumulateHold();

    int fftSize_ = defaultFFTSize;
    FrequencyScale frequencyScale_ = FrequencyScale::logarithmic;
    AmplitudeScale amplitudeScale_ = AmplitudeScale::decibels;
    bool holdPeaks_ = false;
    std::vector<float> spectrum_;
    std::vector<float> peakHold_;
    double sampleRate_ = 48000;
    /// For spectra at a point, on the main thread; an average makes its own on its job.
    std::unique_ptr<SpectrumAnalyzer> analyzer_;
    /// Raised by every request: an average started before a later request is dropped.
    int64_t generation_ = 0;
    BackgroundJob averageTask_;
};

} // namespace harlune
