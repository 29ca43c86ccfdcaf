#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace harlune {

/// Splits `frames` interleaved frames into the first `frames` samples of each plane (one plane
/// per channel), and sets `views` to those stretches.
void deinterleave(const float* interleaved, size_t frames, std::vector<std::vector<float>>& planes,
                  std::vector<std::span<const float>>& views);

} // namespace harlune
