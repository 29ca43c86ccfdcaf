// Spectral purity of the conversion, measured in double precision with a 7-term Blackman-Harris
// window, whose side lobes (about -180 dB) lie far below the -140 dB being checked.
#include "dsp/Resampler.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <fftw3.h>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

namespace harlune {
namespace {

constexpr double pi = std::numbers::pi;

std::vector<double> blackmanHarris7(size_t n) {
    static constexpr double a[] = {0.27105140069342, 0.43329793923448, 0.21812299954311, 0.06592544638803,
                                   0.01081174209837, 0.00077658482522, 0.00001388721735};
    std::vector<double> w(n);
    for (size_t i = 0; i < n; ++i) {
        const double x = 2 * pi * static_cast<double>(i) / static_cast<double>(n);
        double sum = 0;
        for (int k = 0; k < 7; ++k)
            sum += (k % 2 == 0 ? 1 : -1) * a[k] * std::cos(k * x);
        w[i] = sum;
    }
    return w;
}

/// Magnitudes of bins 0...n/2 of the windowed frame starting at `start`, in dB relative to a
/// sine of amplitude `amplitude` (which would read 0 dB at its own bin).
class Spectrum {
public:
    explicit Spectrum(size_t n) : n_(n), window_(blackmanHarris7(n)), in_(n), out_(n / 2 + 1) {
        plan_ = fftw_plan_dft_r2c_1d(static_cast<int>(n), in_.data(),
                                     reinterpret_cast<fftw_complex*>(out_.data()), FFTW_ESTIMATE);
        for (const double w : window_)
            windowSum_ += w;
    }
    ~Spectrum() { fftw_destroy_plan(plan_); }
    Spectrum(const Spectrum&) = delete;
    Spectrum& operator=(const Spectrum&) = delete;

    std::vector<double> decibels(const std::vector<float>& signal, size_t start, double amplitude) {
        for (size_t i = 0; i < n_; ++i)
            in_[i] = static_cast<double>(signal[start + i]) * window_[i];
        fftw_execute(plan_);
        const double reference = amplitude / 2 * windowSum_;
        std::vector<double> result(out_.size());
        for (size_t k = 0; k < out_.size(); ++k)
            result[k] = 20 * std::log10(std::max(std::abs(out_[k]), 1e-300) / reference);
        return result;
    }

private:
    size_t n_;
    std::vector<double> window_;
    std::vector<double> in_;
    std::vector<std::complex<double>> out_;
    fftw_plan plan_;
    double windowSum_ = 0;
};

std::vector<float> converted(const std::vector<float>& input, double from, double to, double segmentSeconds) {
    std::vector<float> out;
    const ArraySource source({input}, from);
    Resampler::resample(source, std::nullopt, to, segmentSeconds, std::nullopt,
                        [&](ChunkViews chunk) { out.insert(out.end(), chunk[0].begin(), chunk[0].end()); });
    return out;
}

// A steady 1 kHz sine (segments of a quarter second, so that the measured stretch crosses their
// borders) and a linear sweep from 0 to the input's Nyquist frequency: nothing outside the tone's
// own band, wherever it is in each analysed frame, comes within 140 dB of it.
TEST(ResamplerPurityTest, SinesAndSweepsShowNoSpuriousComponentOrAliasWithin140dB) {
    constexpr double amplitude = 0.5;
    for (const bool sweep : {false, true})
        for (const auto& [from, to] : {std::pair{44100.0, 48000.0}, std::pair{48000.0, 44100.0}}) {
            const double seconds = sweep ? 3.0 : 1.5;
            const double slope = sweep ? from / 2 / seconds : 0; // Hz per second
            std::vector<float> input(static_cast<size_t>(from * seconds));
            for (size_t i = 0; i < input.size(); ++i) {
                const double t = static_cast<double>(i) / from;
                input[i] =
                    static_cast<float>(amplitude * std::sin(sweep ? pi * slope * t * t : 2 * pi * 1000 * t));
            }
            const auto out = converted(input, from, to, sweep ? 0.5 : 0.25);

            const size_t n = sweep ? 4096 : 32768;
            const double binHz = to / static_cast<double>(n);
            Spectrum spectrum(n);
            double worst = -400, worstHz = 0, worstTime = 0;
            // Frames clear of the abrupt start and end.
            const auto first = static_cast<size_t>(to * (sweep ? 0.1 : 0.2));
            const size_t last = sweep ? out.size() - static_cast<size_t>(to * 0.1) - n : first;
            for (size_t start = first; start <= last; start += n / 2) {
                const auto db = spectrum.decibels(out, start, amplitude);
                // Where the tone is during this frame, with room for the window's main lobe.
                const double lowHz =
                    sweep ? slope * static_cast<double>(start) / to - 40 * binHz : 1000 - 8 * binHz;
                const double highHz =
                    sweep ? slope * static_cast<double>(start + n) / to + 40 * binHz : 1000 + 8 * binHz;
                if (!sweep) {
                    const double peak = *std::max_element(db.begin() + static_cast<long>(lowHz / binHz),
                                                          db.begin() + static_cast<long>(highHz / binHz));
                    EXPECT_NEAR(peak, 0.0, 0.5) << "the tone itself";
                }
                for (size_t k = sweep ? 1 : 0; k < db.size(); ++k) {
                    const double hz = static_cast<double>(k) * binHz;
                    if ((hz < lowHz || hz > highHz) && db[k] > worst)
                        worst = db[k], worstHz = hz, worstTime = static_cast<double>(start) / to;
                }
            }
            EXPECT_LT(worst, -140.0) << (sweep ? "sweep " : "sine ") << from << " -> " << to << ": at "
                                     << worstHz << " Hz, " << worstTime << " s";
        }
}

} // namespace
} // namespace harlune
