#pragma once

#include <span>
#include <string_view>

namespace harlune {

/// A delivery target of the loudness panel; its id is the name.
struct LoudnessPreset {
    std::string_view name;
    /// Integrated loudness, LUFS.
    double lufs = 0;
    /// True-peak ceiling, dBTP.
    double ceiling = 0;

    std::string_view id() const { return name; }
    friend bool operator==(const LoudnessPreset&, const LoudnessPreset&) = default;
};

/// The fixed list, in the panel's order.
std::span<const LoudnessPreset> loudnessPresets();

} // namespace harlune
