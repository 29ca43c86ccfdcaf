#pragma once

namespace harlune {

/// The compressor's static curve in dB: unity under the threshold, the slope above it, and a
/// quadratic soft knee of full width `kneeDB` centred on the threshold (none at 0 or below).
/// Inline: the processor evaluates it for every frame.
struct CompressorCurve {
    double thresholdDB = 0;
    /// Output dB per input dB above the threshold: 1 / ratio, or 1 for a ratio under 1.
    double slope = 1;
    double kneeDB = 0;

    static CompressorCurve of(double thresholdDB, double ratio, double kneeDB) {
        return {thresholdDB, ratio >= 1 ? 1 / ratio : 1, kneeDB};
    }

    double outputDB(double inputDB) const { return inputDB + reductionDB(inputDB); }

    /// Output minus input, never positive.
    double reductionDB(double inputDB) const {
        const double over = inputDB - thresholdDB;
        const double half = kneeDB / 2;
        if (kneeDB > 0 && over <= half && over >= -half) {
            const double into = over + half;
            return (slope - 1) * into * into / (2 * kneeDB);
        }
        return over <= 0 ? 0 : over * (slope - 1);
    }
};

} // namespace harlune
