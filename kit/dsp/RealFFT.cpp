#include "dsp/RealFFT.h"

#include "base/HarluneError.h"
#include "base/Precondition.h"

#include <algorithm>
#include <fftw3.h>
#include <mutex>
#include <string>

namespace harlune {

namespace {

// FFTW keeps its planner state in globals; every plan made or destroyed in this program goes
// through this one lock.
std::mutex& plannerLock() {
    static std::mutex lock;
    return lock;
}

} // namespace

struct RealFFT::Plans {
    fftwf_plan forward = nullptr;
    fftwf_plan inverse = nullptr;
};

RealFFT::RealFFT(int size) : size_(size), plans_(std::make_unique<Plans>()) {
    HARLUNE_PRECONDITION(size >= 2 && size % 2 == 0, "a real FFT needs an even size of at least 2");
    const std::lock_guard lock(plannerLock());
    time_ = fftwf_alloc_real(static_cast<size_t>(size));
    spectrum_ = reinterpret_cast<std::complex<float>*>(fftwf_alloc_complex(static_cast<size_t>(binCount())));
    auto* bins = reinterpret_cast<fftwf_complex*>(spectrum_);
    if (time_ != nullptr && spectrum_ != nullptr) {
        plans_->forward = fftwf_plan_dft_r2c_1d(size, time_, bins, FFTW_ESTIMATE);
        plans_->inverse = fftwf_plan_dft_c2r_1d(size, bins, time_, FFTW_ESTIMATE);
    }
    if (plans_->forward == nullptr || plans_->inverse == nullptr) {
        if (plans_->forward != nullptr)
            fftwf_destroy_plan(plans_->forward);
        if (plans_->inverse != nullptr)
            fftwf_destroy_plan(plans_->inverse);
        fftwf_free(time_);
        fftwf_free(spectrum_);
        throw HarluneError::codecUnavailable("the FFT of size " + std::to_string(size) + " cannot be set up");
    }
    std::fill(time_, time_ + size, 0.0f);
    std::fill(spectrum_, spectrum_ + binCount(), std::complex<float>{});
}

RealFFT::~RealFFT() {
    const std::lock_guard lock(plannerLock());
    fftwf_destroy_plan(plans_->forward);
    fftwf_destroy_plan(plans_->inverse);
    fftwf_free(time_);
    fftwf_free(spectrum_);
}

void RealFFT::forward() const noexcept {
    fftwf_execute(plans_->forward);
}

void RealFFT::inverse() const noexcept {
    fftwf_execute(plans_->inverse);
}

} // namespace harlune
