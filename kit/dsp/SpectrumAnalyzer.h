#pragma once

#include "base/AudioSource.h"
#include "base/FunctionRef.h"
#include "dsp/Buffers.h"
#include "dsp/RealFFT.h"
#include "dsp/WindowFunction.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace harlune {

/// Power spectra of a source in dB, one frame at a point in time or averaged over a range.
///
/// Scaled so that a full-scale sine on a bin reads 0 dB in every window: each bin between DC and
/// Nyquist counts its negative frequency too (4|X|²), and the sum is divided by the window's
/// coherent gain squared, (Σw)². All channels go into one sum. Used by one thread at a time; the
/// FFT plan is made in the constructor (under FFTW's planner lock), so make analyzers off the
/// audio thread.
class SpectrumAnalyzer {
public:
    /// Every bin is at least this, dB: silence, and anything that is not a number.
    static constexpr float floorDB = -200;
    static constexpr int minimumFFTSize = 256;
    static constexpr int maximumFFTSize = 65536;

    /// `fftSize` is a power of two from 256 to 65536 (otherwise the program stops).
    SpectrumAnalyzer(int fftSize, WindowFunction window);

    int fftSize() const { return fftSize_; }
    WindowFunction window() const { return window_; }
    /// `fftSize` / 2 + 1: DC to Nyquist.
    int binCount() const { return fftSize_ / 2 + 1; }
    /// Hz at the centre of bin `bin`.
    double frequency(int bin, double sampleRate) const { return sampleRate * bin / fftSize_; }

    /// One frame centred on frame `centre`, zero-padded outside the source. `binCount` dB values.
    std::vector<float> spectrum(const AudioSource& source, int64_t centre);
    /// The mean power of up to `maxFrames` half-overlapping frames inside `range` (clamped to
    /// the source), spread evenly over it; one zero-padded frame when the range is shorter than
    /// `fftSize`, all bins at `floorDB` when empty. `progress` as in `SignalAnalysis::stats`.
    std::vector<float> averagedSpectrum(const AudioSource& source, FrameRange range, int maxFrames,
                                        std::optional<FunctionRef<bool(double)>> progress = std::nullopt);

private:
    /// Adds the power of the frame starting at `start` to `accum_`, reading only inside `limit`.
    void accumulate(const AudioSource& source, int64_t start, std::optional<FrameRange> limit);
    std::vector<float> finish(int64_t frames, int channels);
    void clear();

    int fftSize_;
    WindowFunction window_;
    RealFFT setup_;
    std::vector<float> windowCoefficients_;
    /// `fftSize` frames of each channel, made for the channel count of the source at hand.
    std::optional<ChannelBuffers> frame_;
    std::vector<float> power_;
    std::vector<float> accum_;
    /// 1 / (Σw)².
    double scale_;
};

} // namespace harlune
