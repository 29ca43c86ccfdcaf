#pragma once

#include "dsp/effects/EffectSettings.h"
#include "dsp/effects/NoiseReductionSettings.h"

#include <string>
#include <vector>

namespace harlune {
class AudioSource;
}

namespace harlune::cli {

/// A stretch of a file in seconds, START:END on the command line.
struct SecondsSpan {
    double start = 0;
    double end = 0;
};

/// Parses START:END (0 <= START < END) given to `option`; `UsageError` otherwise.
SecondsSpan parseSecondsSpan(const std::string& text, const std::string& option);

/// Learns the noise of `span` of `source` at the size the noise reduction uses at the source's
/// rate. A span outside the source fails with a message naming `option`.
NoiseProfile learnNoiseProfile(const AudioSource& source, SecondsSpan span, const std::string& option);

/// Reads a profile as `noise-profile` writes it (the JSON of a `NoiseProfile`). A file that is
/// missing, cut short, of another kind or inconsistent fails with a message that says which.
NoiseProfile readNoiseProfile(const std::string& path, const std::string& option);

/// Fails unless `profile` was learnt at `sampleRate`.
void requireProfileRate(const NoiseProfile& profile, double sampleRate, const std::string& option);

/// Gives every noise-reduction entry of `chain` the profile.
void useNoiseProfile(std::vector<EffectSettings>& chain, const NoiseProfile& profile);

} // namespace harlune::cli
