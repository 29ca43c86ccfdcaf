#pragma once

#include <string>
#include <vector>

namespace harlune {

/// Which input channels make the take's channels (zero-based input channels, in take order).
struct InputChoice {
    std::vector<int> channels;

    /// "Inputs 1–2 (stereo)", "Input 3 (mono)", "All 4 inputs".
    std::string title() const;
    /// The choices a device of `channelCount` inputs offers: pairs first (1–2, 3–4 …), then the
    /// single inputs, then all inputs for more than two.
    static std::vector<InputChoice> choices(int channelCount);

    friend bool operator==(const InputChoice&, const InputChoice&) = default;
};

} // namespace harlune
