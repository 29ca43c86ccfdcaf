#pragma once

#include <vector>

// TEMPORARY: stands in for the loudness measurement's result until the kit provides it; the
// model only stores and compares these values.

namespace harlune {

struct LoudnessResult {
    double integratedLUFS = 0;
    double loudnessRangeLU = 0;
    double truePeakDBTP = 0;
    std::vector<double> truePeakPerChannel;
    double samplePeakDBFS = 0;
    std::vector<double> samplePeakPerChannel;
    double maxMomentaryLUFS = 0;
    double maxShortTermLUFS = 0;
    double rmsDBFS = 0;
    double hopSeconds = 0.1;
    std::vector<float> momentary;
    std::vector<float> shortTerm;

    friend bool operator==(const LoudnessResult&, const LoudnessResult&) = default;
};

} // namespace harlune
