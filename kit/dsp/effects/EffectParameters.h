#pragma once

#include "dsp/effects/EffectSettings.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace harlune {

/// How a control moves across its range; `toggle` is a bool field, `choice` an enum field.
enum class ParameterScale { linear, logarithmic, toggle, choice };

/// "linear", "logarithmic", "toggle", "choice".
std::string_view rawValue(ParameterScale scale);

/// One field of an effect's settings, as the command line, the settings readers and a generic
/// editor see it. Numbers of toggles are 0/1 and of choices the index into `choices`.
struct EffectParameter {
    std::string_view key;         ///< the settings field's name, also its JSON key
    std::string_view displayName; ///< "Threshold"
    std::string_view unit;        ///< "dB", "Hz", "ms", "s", ":1", "x", "bits", or empty
    ParameterScale scale;
    /// The processor's clamp range; infinite where it leaves that side open.
    double minimum;
    double maximum;
    /// Where the processor's ceiling follows the sample rate: the ceiling is this fraction of the
    /// rate (0: it does not). `maximum` then holds the ceiling at 48 kHz.
    double maximumRateFraction = 0;
    /// A finite span for controls, inside the clamp range.
    double editorMinimum = 0;
    double editorMaximum = 0;
    double defaultValue = 0;
    /// The raw values of a `choice`, in the enum's order.
    std::span<const std::string_view> choices = {};
    bool isInteger = false;

    /// The clamp ceiling at `sampleRate` (absent: without the rate-bound part).
    double maximumAt(std::optional<double> sampleRate) const;
};

/// The parameters of one kind, in the order of the settings record. For `eq`: "outputGainDB"
/// only; its band list is described by `eqBandParameters`.
std::span<const EffectParameter> effectParameters(EffectKind kind);
/// The fields of one `EQBand` (without its "id").
std::span<const EffectParameter> eqBandParameters();
const EffectParameter* findParameter(std::span<const EffectParameter> parameters, std::string_view key);

/// One value that a processor would not use as it stands.
struct ParameterProblem {
    std::string path;    ///< "feedback", or "bands[2].q" for an EQ band
    std::string message; ///< "feedback 1.2 lies outside 0 to 0.95"
};

/// The values of `settings` that are not finite or lie outside their clamp range (the
/// rate-bound ceilings only with a `sampleRate`), one entry per parameter; empty when all fit.
std::vector<ParameterProblem> parameterProblems(const EffectSettings& settings,
                                                std::optional<double> sampleRate = std::nullopt);

/// "feedback 1.2 lies outside 0 to 0.95", for a value outside [minimum, `ceiling`].
std::string outOfRangeText(const EffectParameter& parameter, const std::string& path, double value,
                           double ceiling);

/// A number as the messages print it: shortest form, no trailing zeros.
std::string formatParameterNumber(double value);

} // namespace harlune
