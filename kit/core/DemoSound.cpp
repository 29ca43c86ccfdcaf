#include "core/DemoSound.h"

#include <cmath>
#include <numbers>
#include <vector>

namespace harlune {

AudioContent makeDemoSound() {
    constexpr double rate = 48000;
    constexpr size_t frames = 4 * 48000;
    constexpr double partials[] = {440.0, 554.37, 659.26};
    std::vector<std::vector<float>> channels(2, std::vector<float>(frames));
    for (size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / rate;
        const double envelope = std::sin(std::numbers::pi * t / 4.0); // one arch over the 4 seconds
        double value = 0;
        for (const double f : partials)
            value += std::sin(2.0 * std::numbers::pi * f * t) / 3.0;
        channels[0][i] = static_cast<float>(0.8 * envelope * value);
        channels[1][i] = static_cast<float>(0.5 * envelope * value);
    }
    return AudioContent(std::move(channels), rate);
}

} // namespace harlune
