#include "dsp/ChannelLoudness.h"

#include "dsp/LoudnessAnalyzer.h"

#include <cmath>
#include <limits>

namespace harlune {

std::vector<double> measureChannels(const AudioSource& source,
                                    std::optional<FunctionRef<bool(double)>> progress) {
    const int channels = source.channelCount();
    if (channels < 2 || channels > 8)
        return {};
    std::vector<double> loudness(static_cast<size_t>(channels), -std::numeric_limits<double>::infinity());
    for (int c = 0; c < channels; ++c) {
        std::vector<double> weights(static_cast<size_t>(channels), 0.0);
        weights[static_cast<size_t>(c)] = 1.0;
        try {
            loudness[static_cast<size_t>(c)] =
                LoudnessAnalyzer::analyze(source, std::nullopt, weights, progress).integratedLUFS;
        } catch (...) {
            // The channel stays at negative infinity: a failed figure is not shown as an error.
        }
    }
    return loudness;
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
