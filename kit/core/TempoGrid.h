#pragma once

#include "base/FrameRange.h"

#include <cstdint>
#include <nlohmann/json_fwd.hpp>

namespace harlune {

/// A constant tempo and meter laid over the frame axis: a guide for the eye and for snapping.
/// It changes no audio and has no undo. Positions are doubles so that a beat may fall between
/// two frames. JSON keys: "bpm", "beatsPerBar", "downbeatFrame", all required.
struct TempoGrid {
    static constexpr double minBPM = 20;
    static constexpr double maxBPM = 400;

    double bpm = 120;
    int beatsPerBar = 4;
    int64_t downbeatFrame = 0; ///< the frame of beat 0, the first beat of bar 0

    TempoGrid() = default;
    /// Clamps `bpm` into 20...400 and lifts `beatsPerBar` to at least 1.
    TempoGrid(double bpm, int beatsPerBar, int64_t downbeatFrame);

    double beatFrames(double sampleRate) const { return sampleRate * (60.0 / bpm); }

    int64_t beatIndex(double position, double sampleRate) const;
    double beatFrame(int64_t index, double sampleRate) const;
    int64_t barIndex(double position, double sampleRate) const;
    double barFrame(int64_t index, double sampleRate) const;
    /// Frames covered by the bars from the lower to the higher index, ends included, limited to
    /// `0...limit`; never inverted, whichever order the indices come in.
    FrameRange barsRange(int64_t firstBar, int64_t secondBar, double sampleRate, int64_t limit) const;
    /// `position` moved to the nearest line of a beat cut in `division` parts (under 1 means 1).
    double snapped(double position, double sampleRate, int division) const;
    /// The same tempo and meter after a change of rate by `factor`: only the downbeat moves.
    TempoGrid scaled(double factor) const;

    friend bool operator==(const TempoGrid&, const TempoGrid&) = default;
};

void to_json(nlohmann::json& json, const TempoGrid& grid);
void from_json(const nlohmann::json& json, TempoGrid& grid);

} // namespace harlune
