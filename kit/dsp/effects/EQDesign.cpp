#include "dsp/effects/EQDesign.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace harlune::EQDesign {

namespace {

double clampedQ(double q) {
    return std::isfinite(q) ? std::clamp(q, 0.025, 40.0) : 0.707;
}

double clampedFrequency(double frequency, double sampleRate) {
    const double top = 0.49 * sampleRate;
    if (!std::isfinite(frequency))
        return std::min(1000.0, top);
    return std::min(std::max(frequency, 5.0), top);
}

} // namespace

int cutSections(int slopeDBPerOctave) {
    return static_cast<int>(std::clamp(std::round(slopeDBPerOctave / 12.0), 1.0, 4.0));
}

bool isIdentity(const BiquadCascade4& cascade) {
    return std::all_of(cascade.sections.begin(), cascade.sections.end(),
                       [](const BiquadCoefficients& c) { return isIdentity(c); });
}

double clampedGainDB(double gainDB) {
    return std::isfinite(gainDB) ? std::clamp(gainDB, -48.0, 48.0) : 0.0;
}

BiquadCascade4 band(EQBandType type, double frequency, double gainDB, double q, int slopeDBPerOctave,
                    double sampleRate) {
    const double Q = clampedQ(q);
    const double f = clampedFrequency(frequency, sampleRate);
    const double w = 2 * std::numbers::pi * f / sampleRate;
    const double c = std::cos(w);
    const double s = std::sin(w);
    const double alpha = s / (2 * Q);
    const double A = std::pow(10.0, clampedGainDB(gainDB) / 40);
    BiquadCascade4 result;
    BiquadCoefficients& first = result.sections[0];
    switch (type) {
    case EQBandType::peak: {
        const double d = 1 + alpha / A;
        first = {(1 + alpha * A) / d, -2 * c / d, (1 - alpha * A) / d, -2 * c / d, (1 - alpha / A) / d};
        break;
    }
    case EQBandType::notch: {
        const double d = 1 + alpha;
        first = {1 / d, -2 * c / d, 1 / d, -2 * c / d, (1 - alpha) / d};
        break;
    }
    case EQBandType::lowShelf: {
        const double e = 2 * std::sqrt(A) * alpha;
        const double a0 = (A + 1) + (A - 1) * c + e;
        first = {A * ((A + 1) - (A - 1) * c + e) / a0, 2 * A * ((A - 1) - (A + 1) * c) / a0,
                 A * ((A + 1) - (A - 1) * c - e) / a0, -2 * ((A - 1) + (A + 1) * c) / a0,
                 ((A + 1) + (A - 1) * c - e) / a0};
        break;
    }
    case EQBandType::highShelf: {
        const double e = 2 * std::sqrt(A) * alpha;
        const double a0 = (A + 1) - (A - 1) * c + e;
        first = {A * ((A + 1) + (A - 1) * c + e) / a0, -2 * A * ((A - 1) + (A + 1) * c) / a0,
                 A * ((A + 1) + (A - 1) * c - e) / a0, 2 * ((A - 1) - (A + 1) * c) / a0,
                 ((A + 1) - (A - 1) * c - e) / a0};
        break;
    }
    case EQBandType::lowCut:
    case EQBandType::highCut: {
        // Butterworth of order 2n; only the last section takes the band's resonance, so that a
        // band Q of 0.707 stays (almost exactly) Butterworth.
        const int n = cutSections(slopeDBPerOctave);
        result.sectionCount = n;
        const double halfSine = std::sin(w / 2);
        const double lowGain = 2 * halfSine * halfSine;
        for (int k = 1; k <= n; ++k) {
            double qk = 1 / (2 * std::cos((2 * k - 1) * std::numbers::pi / (4 * n)));
            if (k == n)
                qk *= Q * std::numbers::sqrt2;
            const double alphaK = s / (2 * qk);
            const double d = 1 + alphaK;
            BiquadCoefficients& section = result.sections[static_cast<size_t>(k - 1)];
            section.a1 = -2 * c / d;
            section.a2 = (1 - alphaK) / d;
            if (type == EQBandType::lowCut) {
                section.b0 = section.b2 = (1 + c) / 2 / d;
                section.b1 = -(1 + c) / d;
            } else {
                section.b0 = section.b2 = lowGain * 0.5 / d;
                section.b1 = lowGain / d;
            }
        }
        break;
    }
    }
    return result;
}

} // namespace harlune::EQDesign
