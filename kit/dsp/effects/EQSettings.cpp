#include "dsp/effects/EQSettings.h"

#include "dsp/effects/EQDesign.h"
#include "dsp/effects/SettingsJSON.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace harlune {

namespace {

struct BandTypeRow {
    EQBandType type;
    std::string_view raw;
    std::string_view displayName;
    bool usesGain;
    bool usesSlope;
};

constexpr std::array<BandTypeRow, 6> bandTypes{{
    {EQBandType::lowCut, "lowCut", "Low Cut", false, true},
    {EQBandType::lowShelf, "lowShelf", "Low Shelf", true, false},
    {EQBandType::peak, "peak", "Bell", true, false},
    {EQBandType::notch, "notch", "Notch", false, false},
    {EQBandType::highShelf, "highShelf", "High Shelf", true, false},
    {EQBandType::highCut, "highCut", "High Cut", false, true},
}};

constexpr std::array<EQBandType, 6> allTypes{EQBandType::lowCut, EQBandType::lowShelf,  EQBandType::peak,
                                             EQBandType::notch,  EQBandType::highShelf, EQBandType::highCut};

const BandTypeRow& row(EQBandType type) {
    return bandTypes[static_cast<size_t>(type)];
}

} // namespace

std::span<const EQBandType> allEQBandTypes() {
    return allTypes;
}
std::string_view rawValue(EQBandType type) {
    return row(type).raw;
}
std::string_view displayName(EQBandType type) {
    return row(type).displayName;
}
bool usesGain(EQBandType type) {
    return row(type).usesGain;
}
bool usesSlope(EQBandType type) {
    return row(type).usesSlope;
}

std::optional<EQBandType> eqBandTypeFromRawValue(std::string_view raw) {
    for (const auto& r : bandTypes)
        if (r.raw == raw)
            return r.type;
    return std::nullopt;
}

std::vector<EQBand> EQSettings::defaultBands() {
    const auto band = [](EQBandType type, double frequency, double q, bool enabled) {
        EQBand b;
        b.isEnabled = enabled;
        b.type = type;
        b.frequency = frequency;
        b.gainDB = 0;
        b.q = q;
        b.slopeDBPerOctave = 24;
        return b;
    };
    return {band(EQBandType::lowCut, 30, 0.707, false),     band(EQBandType::lowShelf, 100, 0.707, true),
            band(EQBandType::peak, 400, 1.0, true),         band(EQBandType::peak, 2500, 1.0, true),
            band(EQBandType::highShelf, 8000, 0.707, true), band(EQBandType::highCut, 18000, 0.707, false)};
}

void to_json(nlohmann::json& json, const EQBand& band) {
    json = nlohmann::json{{"id", band.id},
                          {"isEnabled", band.isEnabled},
                          {"type", std::string(rawValue(band.type))},
                          {"frequency", band.frequency},
                          {"gainDB", band.gainDB},
                          {"q", band.q},
                          {"slopeDBPerOctave", band.slopeDBPerOctave}};
}

void from_json(const nlohmann::json& json, EQBand& band) {
    using namespace settingsJSON;
    read(json, "id", band.id);
    read(json, "isEnabled", band.isEnabled);
    band.type = enumAt<EQBandType>(json, "type", eqBandTypeFromRawValue);
    read(json, "frequency", band.frequency);
    read(json, "gainDB", band.gainDB);
    read(json, "q", band.q);
    read(json, "slopeDBPerOctave", band.slopeDBPerOctave);
}

void to_json(nlohmann::json& json, const EQSettings& settings) {
    json = nlohmann::json{{"bands", settings.bands}, {"outputGainDB", settings.outputGainDB}};
}

void from_json(const nlohmann::json& json, EQSettings& settings) {
    settingsJSON::read(json, "bands", settings.bands);
    settingsJSON::read(json, "outputGainDB", settings.outputGainDB);
}

std::vector<double> EQSettings::responseDB(std::span<const double> frequencies, double sampleRate) const {
    const double rate = sampleRate > 0 ? sampleRate : 48000;
    std::vector<double> result(frequencies.size(), EQDesign::clampedGainDB(outputGainDB));
    const size_t used = std::min(bands.size(), static_cast<size_t>(maxBands));
    for (size_t b = 0; b < used; ++b) {
        const EQBand& band = bands[b];
        if (!band.isEnabled)
            continue;
        const BiquadCascade4 cascade = EQDesign::band(band.type, std::max(band.frequency, 5.0), band.gainDB,
                                                      band.q, band.slopeDBPerOctave, rate);
        if (EQDesign::isIdentity(cascade))
            continue;
        for (size_t i = 0; i < frequencies.size(); ++i) {
            // |H|^2 of each section written with phi = sin^2(w / 2), which stays accurate near DC.
            const double sine = std::sin(std::numbers::pi * frequencies[i] / rate);
            const double phi = sine * sine;
            double power = 1;
            for (int k = 0; k < cascade.sectionCount; ++k) {
                const BiquadCoefficients& c = cascade.sections[static_cast<size_t>(k)];
                const double bSum = c.b0 + c.b1 + c.b2;
                const double aSum = 1 + c.a1 + c.a2;
                const double n =
                    std::max(0.0, bSum * bSum - 4 * phi * (c.b0 * c.b1 + 4 * c.b0 * c.b2 + c.b1 * c.b2) +
                                      16 * phi * phi * c.b0 * c.b2);
                const double d =
                    aSum * aSum - 4 * phi * (c.a1 + 4 * c.a2 + c.a1 * c.a2) + 16 * phi * phi * c.a2;
                power *= n / d;
            }
            result[i] += 10 * std::log10(power);
        }
    }
    return result;
}

} // namespace harlune
