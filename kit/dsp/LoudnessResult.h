#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace harlune {

/// Everything one loudness measurement gives (ITU-R BS.1770, EBU R 128). Levels that have no
/// value (silence, too short) are negative infinity; the range is then 0.
struct LoudnessResult {
    /// Gated integrated loudness, LUFS.
    double integratedLUFS = 0;
    /// Loudness range, LU.
    double loudnessRangeLU = 0;
    /// dBTP, the largest over channels.
    double truePeakDBTP = 0;
    std::vector<double> truePeakPerChannel;
    /// dBFS, the largest over channels.
    double samplePeakDBFS = 0;
    std::vector<double> samplePeakPerChannel;
    double maxMomentaryLUFS = 0;
    double maxShortTermLUFS = 0;
    /// Over all channels and frames, unweighted.
    double rmsDBFS = 0;
    /// Seconds between curve values: always 0.1.
    double hopSeconds = 0.1;
    /// LUFS per 100 ms hop, windows of 400 ms, not below -200.
    std::vector<float> momentary;
    /// LUFS per 100 ms hop, windows of 3 s, not below -200.
    std::vector<float> shortTerm;

    friend bool operator==(const LoudnessResult&, const LoudnessResult&) = default;
};

} // namespace harlune

template <> struct std::hash<harlune::LoudnessResult> {
    size_t operator()(const harlune::LoudnessResult& result) const noexcept;
};
