#include "editor/LoudnessPreset.h"

#include <array>

namespace harlune {

std::span<const LoudnessPreset> loudnessPresets() {
    static constexpr std::array<LoudnessPreset, 8> presets{{
        {"Spotify / YouTube / Tidal", -14, -1},
        {"Apple Music", -16, -1},
        {"Amazon Music", -14, -2},
        {"Podcast (Apple)", -16, -1},
        {"Audiobook (ACX)", -20, -3},
        {"EBU R128 Broadcast", -23, -1},
        {"ATSC A/85 (US TV)", -24, -2},
        {"Club / Loud Master", -9, -0.3},
    }};
    return presets;
}

} // namespace harlune
