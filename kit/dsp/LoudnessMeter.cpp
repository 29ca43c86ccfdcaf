#include "dsp/LoudnessMeter.h"

#include "dsp/LoudnessAnalyzer.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace harlune {

LoudnessMeter::LoudnessMeter(int channelCount, double sampleRate,
                             const std::optional<std::vector<double>>& channelWeights, double reservedSeconds)
    : engine(channelCount, sampleRate, channelWeights, false, ChannelFanout::serial) {
    engine.reserveSubblocks(static_cast<size_t>(std::max(0.0, reservedSeconds) * 10) + 1);
}

double LoudnessMeter::integratedLUFS() const {
    return LoudnessAnalyzer::gatedLoudness(engine.windowEnergies(4, true), -10);
}

double LoudnessMeter::loudnessRangeLU() const {
    return LoudnessAnalyzer::loudnessRange(engine.windowEnergies(30, true));
}

double LoudnessMeter::truePeakDBTP() const {
    float peak = 0;
    for (const auto& channel : engine.channels())
        peak = std::max({peak, channel.peak.samplePeak, channel.peak.interPeak});
    return peak > 0 ? 20 * std::log10(static_cast<double>(peak)) : -std::numeric_limits<double>::infinity();
}

} // namespace harlune
