#pragma once

#include "dsp/BiquadCoefficients.h"
#include "dsp/effects/EQSettings.h"

#include <array>

namespace harlune {

/// Up to four second-order sections run in series; the unused ones are unity sections.
struct BiquadCascade4 {
    /// 1...4.
    int sectionCount = 1;
    std::array<BiquadCoefficients, 4> sections{};

    friend bool operator==(const BiquadCascade4&, const BiquadCascade4&) = default;
};

/// The biquad designs of the equaliser's bands (RBJ cookbook shapes, Butterworth cascades for
/// the cuts), in double precision. Shared with the saturation's tone filter.
namespace EQDesign {

/// Clamps what it uses: Q 0.025...40 (non-finite 0.707), gain -48...48 dB (non-finite 0),
/// frequency 5 Hz...0.49 * `sampleRate` (non-finite 1 kHz). The cuts take
/// clamp(round(slope / 12), 1, 4) sections.
BiquadCascade4 band(EQBandType type, double frequency, double gainDB, double q, int slopeDBPerOctave,
                    double sampleRate);

/// Sections for a slope in dB per octave: 12, 24, 36 or 48 dB become 1...4.
int cutSections(int slopeDBPerOctave);

/// Passes any signal unchanged: b0 1, b1 = a1, b2 = a2.
inline bool isIdentity(const BiquadCoefficients& c) {
    return c.b0 == 1 && c.b1 == c.a1 && c.b2 == c.a2;
}

/// All sections identity.
bool isIdentity(const BiquadCascade4& cascade);

/// -48...48 dB; non-finite gives 0.
double clampedGainDB(double gainDB);

} // namespace EQDesign
} // namespace harlune
