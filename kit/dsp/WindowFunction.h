#pragma once

#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace harlune {

/// The tapers of a spectrum frame.
enum class WindowFunction { hann, blackmanHarris, flatTop, rectangular };

std::span<const WindowFunction> allWindowFunctions();
/// "hann", "blackmanHarris", "flatTop", "rectangular".
std::string_view rawValue(WindowFunction window);
std::optional<WindowFunction> windowFunctionFromRawValue(std::string_view raw);

/// `count` coefficients. The cosine sums have period `count` (the periodic form, as spectral
/// analysis wants): w[n] = Σ (−1)^k a[k] cos(2π k n / count), computed in double.
std::vector<float> coefficients(WindowFunction window, int count);

} // namespace harlune
