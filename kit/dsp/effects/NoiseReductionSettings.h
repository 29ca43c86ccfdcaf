#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <vector>

namespace harlune {

class AudioSource;
struct FrameRange;

/// The learnt spectrum of the noise.
struct NoiseProfile {
    int fftSize = 0;
    /// Hz.
    double sampleRate = 0;
    /// `fftSize / 2 + 1` values, the mean power of the noise per bin.
    std::vector<float> binPower;

    /// The mean power per bin of `range` of `source` (clipped to it), all channels pooled, on
    /// the scale `NoiseReductionProcessor` measures its input. `fftSize` is taken to a power of
    /// two from 256 to 65536. An empty range gives all bins 0. Not for the audio thread.
    static NoiseProfile learn(const AudioSource& source, FrameRange range, int fftSize);

    friend bool operator==(const NoiseProfile&, const NoiseProfile&) = default;
};

struct NoiseReductionSettings {
    std::optional<NoiseProfile> profile;
    double reductionDB = 18;
    double sensitivityDB = 0;
    double smoothing = 0.5;
    bool outputNoiseOnly = false;

    friend bool operator==(const NoiseReductionSettings&, const NoiseReductionSettings&) = default;
};

void to_json(nlohmann::json& json, const NoiseProfile& profile);
void from_json(const nlohmann::json& json, NoiseProfile& profile);
/// "profile" is written only when present, and may be absent or null on reading.
void to_json(nlohmann::json& json, const NoiseReductionSettings& settings);
void from_json(const nlohmann::json& json, NoiseReductionSettings& settings);

} // namespace harlune
