#include "NoiseProfileOptions.h"

#include "CliSupport.h"
#include "base/AudioSource.h"
#include "dsp/effects/NoiseReductionProcessor.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace harlune::cli {

namespace {

std::string quoted(const std::string& text) {
    return "\u2018" + text + "\u2019";
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

double parseSeconds(const std::string& text, const std::string& option, const std::string& whole) {
    size_t used = 0;
    double value = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size() || !std::isfinite(value))
        throw UsageError{option + " takes START:END in seconds, not " + quoted(whole)};
    return value;
}

} // namespace

SecondsSpan parseSecondsSpan(const std::string& text, const std::string& option) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos)
        throw UsageError{option + " takes START:END in seconds, not " + quoted(text)};
    const SecondsSpan span{parseSeconds(text.substr(0, colon), option, text),
                           parseSeconds(text.substr(colon + 1), option, text)};
    if (span.start < 0 || span.end <= span.start)
        throw UsageError{option + " needs 0 <= START < END, not " + quoted(text)};
    return span;
}

NoiseProfile learnNoiseProfile(const AudioSource& source, SecondsSpan span, const std::string& option) {
    const double rate = source.sampleRate();
    const auto lower = static_cast<int64_t>(std::llround(span.start * rate));
    const auto upper = static_cast<int64_t>(std::llround(span.end * rate));
    if (upper > source.frameCount() || lower >= upper)
        throw std::runtime_error(option + ": " + number(span.start) + " to " + number(span.end) +
                                 " s lies outside the audio (0 to " + number(source.duration()) + " s)");
    return NoiseProfile::learn(source, {lower, upper}, NoiseReductionProcessor::fftSize(rate));
}

NoiseProfile readNoiseProfile(const std::string& path, const std::string& option) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(option + ": can\u2019t read " + quoted(path));
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(file);
    } catch (const nlohmann::json::exception&) {
        throw std::runtime_error(
            option + ": " + quoted(path) +
            " is not complete JSON (cut short or damaged), so it holds no noise profile");
    }
    const std::string what = option + ": " + quoted(path);
    if (!json.is_object() || !json.contains("binPower")) {
        std::string kind;
        if (json.is_object() && json.size() == 1)
            kind = " (it looks like settings of the effect " + quoted(json.begin().key()) + ")";
        throw std::runtime_error(what + " is not a noise profile" + kind +
                                 "; make one with \u2018harlune-cli noise-profile\u2019");
    }
    NoiseProfile profile;
    try {
        profile = json.get<NoiseProfile>();
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error(what + " is not a valid noise profile: " + error.what());
    }
    const int size = profile.fftSize;
    if (size < 256 || size > 65536 || !std::has_single_bit(static_cast<unsigned>(size)))
        throw std::runtime_error(what + ": the FFT size " + std::to_string(size) +
                                 " is not a power of two from 256 to 65536");
    if (profile.binPower.size() != static_cast<size_t>(size / 2 + 1))
        throw std::runtime_error(what + " is truncated or damaged: it has " +
                                 std::to_string(profile.binPower.size()) +
                                 " bin values where an FFT size of " + std::to_string(size) + " needs " +
                                 std::to_string(size / 2 + 1));
    if (!std::isfinite(profile.sampleRate) || profile.sampleRate <= 0)
        throw std::runtime_error(what + ": the sample rate " + number(profile.sampleRate) + " is not valid");
    for (const float value : profile.binPower)
        if (!std::isfinite(value) || value < 0)
            throw std::runtime_error(what + " is damaged: a bin power is negative or not a number");
    return profile;
}

void requireProfileRate(const NoiseProfile& profile, double sampleRate, const std::string& option) {
    if (profile.sampleRate != sampleRate)
        throw std::runtime_error(option + ": the noise profile was learnt at " + number(profile.sampleRate) +
                                 " Hz, but the audio is at " + number(sampleRate) +
                                 " Hz; learn it from audio at this rate");
}

void useNoiseProfile(std::vector<EffectSettings>& chain, const NoiseProfile& profile) {
    for (EffectSettings& settings : chain)
        if (const auto* noise = settings.as<NoiseReductionSettings>()) {
            NoiseReductionSettings changed = *noise;
            changed.profile = profile;
            settings = EffectSettings(changed);
        }
}

} // namespace harlune::cli
