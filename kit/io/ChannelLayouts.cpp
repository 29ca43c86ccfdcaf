#include "io/ChannelLayouts.h"

#include "base/Precondition.h"

#include <array>

namespace harlune::ChannelLayouts {

namespace {

constexpr std::array<unsigned, 8> canonicalNumbers{100, 101, 113, 108, 117, 121, 188, 189};
constexpr std::array<unsigned, 8> alacNumbers{100, 101, 114, 116, 120, 124, 142, 127};
constexpr std::array<unsigned, 8> aacNumbers{100, 101, 114, 108, 120, 124, 142, 183};

std::optional<unsigned> tag(const std::array<unsigned, 8>& numbers, int channels) {
    if (channels < 1 || channels > 8)
        return std::nullopt;
    return (numbers[static_cast<size_t>(channels - 1)] << 16) | static_cast<unsigned>(channels);
}

// Left and right gains of each input for a stereo fold of 3 to 8 channels; g is the float of
// the square root of one half.
constexpr float g = 0.70710677f;
using StereoRow = std::array<std::array<float, 2>, 8>;
constexpr std::array<StereoRow, 6> stereoFolds{{
    {{{1, 0}, {0, 1}, {g, g}}},
    {{{1, 0}, {0, 1}, {g, 0}, {0, g}}},
    {{{1, 0}, {0, 1}, {g, g}, {g, 0}, {0, g}}},
    {{{1, 0}, {0, 1}, {g, g}, {0, 0}, {g, 0}, {0, g}}},
    {{{1, 0}, {0, 1}, {g, g}, {0, 0}, {0.5f, 0.5f}, {g, 0}, {0, g}}},
    {{{1, 0}, {0, 1}, {g, g}, {0, 0}, {g, 0}, {0, g}, {g, 0}, {0, g}}},
}};

} // namespace

std::optional<unsigned> canonicalTag(int channels) {
    return tag(canonicalNumbers, channels);
}
std::optional<unsigned> alacTag(int channels) {
    return tag(alacNumbers, channels);
}
std::optional<unsigned> aacTag(int channels) {
    return tag(aacNumbers, channels);
}

std::vector<std::vector<float>> downmixMatrix(int inputs, int outputs) {
    HARLUNE_PRECONDITION(outputs >= 1 && outputs < inputs, "downmixMatrix needs 1 <= outputs < inputs");
    const auto n = static_cast<size_t>(inputs);
    const auto m = static_cast<size_t>(outputs);
    std::vector<std::vector<float>> matrix(m, std::vector<float>(n, 0.0f));
    if (m == 2 && n <= 8) {
        const StereoRow& fold = stereoFolds[n - 3];
        for (size_t i = 0; i < n; ++i) {
            matrix[0][i] = fold[i][0];
            matrix[1][i] = fold[i][1];
        }
    } else if (m == 2) {
        for (size_t i = 0; i < n; ++i)
            matrix[i % 2][i] = 1.0f;
    } else if (m == 1) {
        for (size_t i = 0; i < n; ++i)
            matrix[0][i] = (n >= 6 && n <= 8 && i == 3) ? 0.0f : 1.0f;
    } else {
        for (size_t i = 0; i < n; ++i)
            matrix[i % m][i] = 1.0f;
    }
    for (auto& row : matrix) {
        float sum = 0;
        for (const float gain : row)
            sum += gain;
        if (sum > 1.0f)
            for (float& gain : row)
                gain /= sum;
    }
    return matrix;
}

} // namespace harlune::ChannelLayouts
