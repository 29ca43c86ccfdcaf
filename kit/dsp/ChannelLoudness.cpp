#include "dsp/ChannelLoudness.h"

#include "dsp/LoudnessAnalyzer.h"

#include <cmath>
#include <limits>

namespace harlune {

bool hasChannelFigures(int channelCount) {
    return channelCount >= 2 && channelCount <= 8;
}

std::vector<double> measureChannels(const AudioSource& source,
                                    std::optional<FunctionRef<bool(double)>> progress) {
    const int channels = source.channelCount();
    if (!hasChannelFigures(channels))
        return {};
    try {
        return LoudnessAnalyzer::analyzeWithChannels(source, progress).channelLUFS;
    } catch (...) {
        // A failed figure is not shown as an error: every channel stays at negative infinity.
        return std::vector<double>(static_cast<size_t>(channels), -std::numeric_limits<double>::infinity());
    }
}

std::vector<double> balancingTrims(const std::vector<double>& loudness) {
    if (loudness.size() < 2)
        return {};
    double mean = 0;
    for (const double value : loudness) {
        if (!std::isfinite(value))
            return {};
        mean += value;
    }
    mean /= static_cast<double>(loudness.size());
    std::vector<double> trims;
    for (const double value : loudness)
        trims.push_back(mean - value);
    return trims;
}

} // namespace harlune
