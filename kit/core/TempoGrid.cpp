#include "core/TempoGrid.h"

#include "base/Clamped.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace harlune {

TempoGrid::TempoGrid(double bpmValue, int beats, int64_t downbeat)
    : bpm(clamped(bpmValue, minBPM, maxBPM)), beatsPerBar(std::max(1, beats)), downbeatFrame(downbeat) {}

int64_t TempoGrid::beatIndex(double position, double sampleRate) const {
    return static_cast<int64_t>(
        std::floor((position - static_cast<double>(downbeatFrame)) / beatFrames(sampleRate)));
}

double TempoGrid::beatFrame(int64_t index, double sampleRate) const {
    return beatFrames(sampleRate) * static_cast<double>(index) + static_cast<double>(downbeatFrame);
}

int64_t TempoGrid::barIndex(double position, double sampleRate) const {
    const double barLength = beatFrames(sampleRate) * beatsPerBar;
    return static_cast<int64_t>(std::floor((position - static_cast<double>(downbeatFrame)) / barLength));
}

double TempoGrid::barFrame(int64_t index, double sampleRate) const {
    return beatFrames(sampleRate) * beatsPerBar * static_cast<double>(index) +
           static_cast<double>(downbeatFrame);
}

FrameRange TempoGrid::barsRange(int64_t firstBar, int64_t secondBar, double sampleRate, int64_t limit) const {
    const double barLength = beatFrames(sampleRate) * beatsPerBar;
    const auto downbeat = static_cast<double>(downbeatFrame);
    const auto end = [&](double frame) {
        const auto rounded = static_cast<int64_t>(std::round(frame));
        return std::min(std::max<int64_t>(rounded, 0), limit);
    };
    const int64_t lower = end(barLength * static_cast<double>(std::min(firstBar, secondBar)) + downbeat);
    const int64_t upper = end(barLength * static_cast<double>(std::max(firstBar, secondBar) + 1) + downbeat);
    return {lower, std::max(lower, upper)};
}

double TempoGrid::snapped(double position, double sampleRate, int division) const {
    const double step = beatFrames(sampleRate) / std::max(1, division);
    const auto downbeat = static_cast<double>(downbeatFrame);
    return step * std::round((position - downbeat) / step) + downbeat;
}

TempoGrid TempoGrid::scaled(double factor) const {
    return TempoGrid(bpm, beatsPerBar,
                     static_cast<int64_t>(std::round(static_cast<double>(downbeatFrame) * factor)));
}

void to_json(nlohmann::json& json, const TempoGrid& grid) {
    json = nlohmann::json{
        {"bpm", grid.bpm}, {"beatsPerBar", grid.beatsPerBar}, {"downbeatFrame", grid.downbeatFrame}};
}

void from_json(const nlohmann::json& json, TempoGrid& grid) {
    grid = TempoGrid(json.at("bpm").get<double>(), json.at("beatsPerBar").get<int>(),
                     json.at("downbeatFrame").get<int64_t>());
}

} // namespace harlune
