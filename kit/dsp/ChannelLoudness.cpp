#include "dsp/ChannelLoudness.h"

#include "dsp/LoudnessAnalyzer.h"

#include <cmath>
#include <limits>

namespace harlune {

LoudnessWithChannels measureWithChannels(const AudioSource& source,
                                         std::optional<FunctionRef<bool(double)>> progress) {
    const int channels = source.channelCount();
    const bool perChannel = channels >= 2 && channels <= 8;
    try {
        LoudnessAnalyzer::ResultWithChannels measured =
            LoudnessAnalyzer::analyzeWithChannels(source, progress);
        return {std::move(measured.whole),
                perChannel ? std::move(measured.channelLUFS) : std::vector<double>()};
    } catch (...) {
        // A failed figure is not shown as an error: every channel stays at negative infinity.
        return {std::nullopt, perChannel ? std::vector<double>(static_cast<size_t>(channels),
                                                               -std::numeric_limits<double>::infinity())
                                         : std::vector<double>()};
    }
}

std::vector<double> measureChannels(const AudioSource& source,
                                    std::optional<FunctionRef<bool(double)>> progress) {
    const int channels = source.channelCount();
    if (channels < 2 || channels > 8)
        return {}; // not worth a pass
    return measureWithChannels(source, progress).channels;
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
