#pragma once

#include <memory>
#include <span>
#include <vector>

namespace harlune {

/// The polyphase interpolator of a true-peak meter (ITU-R BS.1770 annex 2): at 4x oversampling
/// below 96 kHz, 2x below 192 kHz, and none above. Each phase is a 24-tap Kaiser-windowed sinc
/// (beta 6) for one fractional position between two samples, normalised to unity gain at DC.
struct TruePeakInterpolator {
    explicit TruePeakInterpolator(double sampleRate);

    /// 4, 2 or 1.
    int factor = 1;
    /// `factor` - 1 filters of `taps` floats; phase p sits at p / `factor` after tap 11.
    std::vector<std::vector<float>> phases;
    /// No interpolated value exceeds `gainBound` times the largest input magnitude it reads.
    float gainBound = 1;
    int taps = 24;
};

/// Largest magnitude of `x`, NaN ignored.
float maximumMagnitude(std::span<const float> x);

/// Largest magnitude over all phases of the interpolated points at positions 0..<`count`, each
/// reading `x[i ... i + taps - 1]` (so `x` holds `count + taps - 1` samples).
float interpolatedMaximum(const TruePeakInterpolator& interpolator, const float* x, int count);

/// Raises `curve[i]` (0 <= i < `count`) to the magnitude of each phase's output at i, reading as
/// `interpolatedMaximum` does.
void raiseToInterpolated(const TruePeakInterpolator& interpolator, const float* x, int count, float* curve);

/// Follows one channel's stream and keeps its peak sample and its peak of the interpolated
/// waveform. `process` allocates nothing. The interpolated peak lags the input by `taps` / 2
/// samples: feed that many zeros to include the end of a stream.
class TruePeakDetector {
public:
    explicit TruePeakDetector(double sampleRate);

    /// Samples must be finite (the loudness engine cleans them first).
    void process(std::span<const float> samples);
    /// Clears the history and both peaks.
    void reset();

    const TruePeakInterpolator& interpolator() const { return interpolator_; }
    /// Largest magnitude of the samples themselves (linear).
    float samplePeak = 0;
    /// Largest magnitude at sample and interpolated positions, delayed by the filter (linear).
    float interPeak = 0;

    /// Samples per block of work.
    static constexpr int workCapacity = 32768;

private:
    TruePeakInterpolator interpolator_;
    /// `taps` - 1 samples of history, then one block.
    std::unique_ptr<float[]> work_;
};

} // namespace harlune
