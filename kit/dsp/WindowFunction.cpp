#include "dsp/WindowFunction.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace harlune {

namespace {

struct WindowRow {
    WindowFunction window;
    std::string_view raw;
    /// a[0], a[1], ...; empty for the rectangle.
    std::span<const double> terms;
};

constexpr std::array<double, 2> hannTerms{0.5, 0.5};
// Harris, "On the use of windows for harmonic analysis with the discrete Fourier transform"
// (Proc. IEEE, 1978): the 4-term, −92 dB form.
constexpr std::array<double, 4> blackmanHarrisTerms{0.35875, 0.48829, 0.14128, 0.01168};
// The flat top of the HP/SRS analysers: amplitude error under 0.01 dB between bins.
constexpr std::array<double, 5> flatTopTerms{0.21557895, 0.41663158, 0.277263158, 0.083578947, 0.006947368};

constexpr std::array<WindowRow, 4> rows{{
    {WindowFunction::hann, "hann", hannTerms},
    {WindowFunction::blackmanHarris, "blackmanHarris", blackmanHarrisTerms},
    {WindowFunction::flatTop, "flatTop", flatTopTerms},
    {WindowFunction::rectangular, "rectangular", {}},
}};

constexpr std::array<WindowFunction, 4> allCases{WindowFunction::hann, WindowFunction::blackmanHarris,
                                                 WindowFunction::flatTop, WindowFunction::rectangular};

} // namespace

std::span<const WindowFunction> allWindowFunctions() {
    return allCases;
}

std::string_view rawValue(WindowFunction window) {
    return rows[static_cast<size_t>(window)].raw;
}

std::optional<WindowFunction> windowFunctionFromRawValue(std::string_view raw) {
    for (const WindowRow& row : rows)
        if (row.raw == raw)
            return row.window;
    return std::nullopt;
}

std::vector<float> coefficients(WindowFunction window, int count) {
    std::vector<float> w(static_cast<size_t>(std::max(count, 0)), 1.0f);
    const std::span<const double> terms = rows[static_cast<size_t>(window)].terms;
    if (terms.empty())
        return w;
    for (int n = 0; n < count; ++n) {
        double sum = 0;
        double sign = 1;
        for (size_t k = 0; k < terms.size(); ++k) {
            sum += sign * terms[k] *
                   std::cos(2 * std::numbers::pi * static_cast<double>(k) * n / static_cast<double>(count));
            sign = -sign;
        }
        w[static_cast<size_t>(n)] = static_cast<float>(sum);
    }
    return w;
}

} // namespace harlune
