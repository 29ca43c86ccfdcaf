#pragma once

#include <complex>
#include <memory>

namespace harlune {

/// A real single-precision FFT pair of one size over its own buffers, planned with FFTW.
///
/// Scaling is FFTW's: `forward` gives the plain DFT sum, and `inverse` after `forward` gives the
/// input times `size`. FFTW's planner is not thread-safe, so making and destroying plans takes
/// one process-wide lock: construct and destroy off the audio thread (in `prepare`, or on a
/// background job). `forward` and `inverse` only run the plans: no allocation, no lock.
class RealFFT {
public:
    /// `size` is even and at least 2. Throws `HarluneError` if FFTW cannot plan it.
    explicit RealFFT(int size);
    ~RealFFT();
    RealFFT(const RealFFT&) = delete;
    RealFFT& operator=(const RealFFT&) = delete;

    int size() const { return size_; }
    int binCount() const { return size_ / 2 + 1; }
    /// `size` samples, the input of `forward` and the output of `inverse`.
    float* time() const { return time_; }
    /// `binCount` bins, DC first and Nyquist last, both with a zero imaginary part.
    std::complex<float>* spectrum() const { return spectrum_; }

    /// `time` to `spectrum`.
    void forward() const noexcept;
    /// `spectrum` to `time`; `spectrum` is overwritten.
    void inverse() const noexcept;

private:
    struct Plans;
    int size_;
    float* time_ = nullptr;
    std::complex<float>* spectrum_ = nullptr;
    std::unique_ptr<Plans> plans_;
};

} // namespace harlune
