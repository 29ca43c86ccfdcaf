#pragma once

#include <cstddef>
#include <vector>

namespace harlune {

/// Levels shown by the transport meters; all values in dB or LUFS.
struct MeterReading {
    static constexpr double resetValue = -120;

    std::vector<double> peakDB;
    std::vector<double> holdDB;
    std::vector<double> rmsDB;
    double momentaryLUFS = resetValue;
    double shortTermLUFS = resetValue;
    double maxMomentaryLUFS = resetValue;

    /// Every level at the reset value, one entry per channel in each list.
    static MeterReading reset(int channelCount) {
        const auto count = static_cast<size_t>(channelCount > 0 ? channelCount : 0);
        MeterReading reading;
        reading.peakDB.assign(count, resetValue);
        reading.holdDB.assign(count, resetValue);
        reading.rmsDB.assign(count, resetValue);
        return reading;
    }

    friend bool operator==(const MeterReading&, const MeterReading&) = default;
};

} // namespace harlune
