#pragma once

#include "dsp/LoudnessResult.h"

#include <cstddef>
#include <functional>

namespace harlune {

/// What gain takes a measured file to a loudness target, and whether its true peak would then
/// pass a ceiling.
namespace LoudnessNormalization {

struct Plan {
    /// dB that reach the target.
    double gainDB = 0;
    /// LUFS after the gain.
    double predictedIntegratedLUFS = 0;
    /// dBTP after the gain.
    double predictedTruePeakDBTP = 0;
    /// The predicted true peak is above the ceiling (exactly at it is fine).
    bool needsLimiting = false;

    friend bool operator==(const Plan&, const Plan&) = default;
};

/// For a silent measurement (no finite integrated loudness) the gain is 0 and the predictions
/// are the measured values.
Plan plan(const LoudnessResult& result, double targetLUFS, double ceilingDBTP);

} // namespace LoudnessNormalization

} // namespace harlune

template <> struct std::hash<harlune::LoudnessNormalization::Plan> {
    size_t operator()(const harlune::LoudnessNormalization::Plan& plan) const noexcept;
};
