#pragma once

#include "base/Uuid.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace harlune {

enum class EQBandType { lowCut, lowShelf, peak, notch, highShelf, highCut };

std::span<const EQBandType> allEQBandTypes();
/// The raw value, also the `id`: "lowCut", "lowShelf", "peak", "notch", "highShelf", "highCut".
std::string_view rawValue(EQBandType type);
std::optional<EQBandType> eqBandTypeFromRawValue(std::string_view raw);
std::string_view displayName(EQBandType type);
bool usesGain(EQBandType type);
bool usesSlope(EQBandType type);

/// One band of the equaliser, as entered (the processor clamps what it uses).
struct EQBand {
    Uuid id = Uuid::random();
    bool isEnabled = true;
    EQBandType type = EQBandType::peak;
    /// Hz.
    double frequency = 1000;
    double gainDB = 0;
    double q = 1;
    /// 12, 24, 36 or 48 for the cut bands.
    int slopeDBPerOctave = 24;

    friend bool operator==(const EQBand&, const EQBand&) = default;
};

struct EQSettings {
    static constexpr int maxBands = 8;

    /// Only the first `maxBands` count in sound and in the response.
    std::vector<EQBand> bands = defaultBands();
    double outputGainDB = 0;

    /// Low cut 30 Hz (off), low shelf 100 Hz, bells at 400 and 2500 Hz, high shelf 8 kHz, high
    /// cut 18 kHz (off); all at 0 dB with slope 24.
    static std::vector<EQBand> defaultBands();

    /// dB at each frequency (Hz) of what the processor does once settled: the output gain plus
    /// every enabled band among the first `maxBands`. A rate <= 0 means 48000. For drawing, not
    /// for the audio thread (it allocates the result).
    std::vector<double> responseDB(std::span<const double> frequencies, double sampleRate) const;

    friend bool operator==(const EQSettings&, const EQSettings&) = default;
};

// JSON keys equal the field names; all are required. Decoding throws nlohmann::json::exception.
void to_json(nlohmann::json& json, const EQBand& band);
void from_json(const nlohmann::json& json, EQBand& band);
void to_json(nlohmann::json& json, const EQSettings& settings);
void from_json(const nlohmann::json& json, EQSettings& settings);

} // namespace harlune
