#include "dsp/effects/ChorusProcessor.h"

#include "base/Clamped.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <numbers>

namespace harlune {

namespace {

/// Per voice: the LFO's phase offset in cycles, and the multiple of the base delay.
constexpr std::array<double, 4> voicePhase{0, 0.5, 0.25, 0.75};
constexpr std::array<double, 4> voiceBase{1.0, 1.13, 0.87, 1.27};
/// A voice whose gain is at most this, at both ends of a tick, is not read.
constexpr float silentGain = 1e-6f;

double finiteOr(double value, double fallback) {
    return std::isfinite(value) ? value : fallback;
}

/// What the settings ask for, clamped; a non-finite value falls back to its default.
struct ChorusTargets {
    double baseMs;
    double sweep;
    double spread;
    double feedback;
    double mix;
    double rateHz;
    ChorusProcessor::Lanes gains;
};

ChorusTargets targetsOf(const ChorusSettings& s) {
    const ChorusSettings d;
    ChorusTargets t{};
    t.baseMs = clamped(finiteOr(s.delayMs, d.delayMs), 0.5, 40.0);
    const double depth = clamped(finiteOr(s.depth, d.depth), 0.0, 1.0);
    t.gains = {1, 0, 0, 0};
    if (s.mode == ModulationMode::flanger) {
        t.sweep = depth * 0.95;
    } else {
        // The swing stays near a constant number of milliseconds whatever the base.
        t.sweep = depth * std::min(0.5, 5 / t.baseMs);
        if (s.voices >= 2) {
            const int n = std::min(s.voices, 4);
            for (int v = 0; v < 4; ++v)
                t.gains[static_cast<size_t>(v)] = v < n ? 1.0f / static_cast<float>(n) : 0.0f;
        }
    }
    t.spread = clamped(finiteOr(s.stereoSpread, d.stereoSpread), 0.0, 1.0);
    t.feedback = clamped(finiteOr(s.feedback, d.feedback), -0.95, 0.95);
    t.mix = clamped(finiteOr(s.mix, d.mix), 0.0, 1.0);
    t.rateHz = clamped(finiteOr(s.rateHz, d.rateHz), 0.05, 10.0);
    return t;
}

} // namespace

ChorusProcessor::ChorusProcessor() {
    const ChorusTargets t = targetsOf(settings_);
    baseMs_ = t.baseMs;
    sweep_ = t.sweep;
    spread_ = t.spread;
    voiceGains_ = t.gains;
    gainStart_ = t.gains;
    gainEnd_ = t.gains;
    feedback_.jump(static_cast<float>(t.feedback));
    mix_.jump(static_cast<float>(t.mix));
}

void ChorusProcessor::apply(const EffectSettings& settings) noexcept {
    if (const auto* chorus = settings.as<ChorusSettings>())
        settings_ = *chorus;
}

int ChorusProcessor::tailFrames() const {
    const ChorusTargets t = targetsOf(settings_);
    const double longestMs = t.baseMs * 1.27 * (1 + t.sweep);
    const double x = std::abs(t.feedback);
    const double repeats = x > 0.001 ? std::ceil(-3 / std::log10(x)) + 1 : 1;
    return static_cast<int>(sampleRate_ * std::min(longestMs / 1000 * repeats + 0.01, 30.0));
}

void ChorusProcessor::doPrepare(double sampleRate, int channelCount, int /*maxFrames*/) {
    isPrepared_ = false;
    // A rate that is no rate runs as 48 kHz rather than sizing lines and filters from nonsense.
    if (!(sampleRate > 0 && sampleRate < 1e7))
        sampleRate = 48000;
    sampleRate_ = sampleRate;
    preparedChannels_ = std::max(1, channelCount);
    lineSize_ = std::bit_ceil(static_cast<uint32_t>(0.1 * sampleRate) + 8);
    storage_ = SpaceStorage<float>(int64_t{lineSize_} * preparedChannels_, 0.0f);
    delayStart_ = SpaceStorage<Lanes>(preparedChannels_);
    delayEnd_ = SpaceStorage<Lanes>(preparedChannels_);
    tickCoefficient_ = spaceTickCoefficient(sampleRate, 0.05);
    isPrepared_ = true;
}

void ChorusProcessor::doReset() noexcept {
    if (!isPrepared_)
        return;
    const ChorusTargets t = targetsOf(settings_);
    storage_.clear();
    lfoPhase_ = 0;
    writeIndex_ = 0;
    controlPhase_ = 0;
    baseMs_ = t.baseMs;
    sweep_ = t.sweep;
    spread_ = t.spread;
    voiceGains_ = t.gains;
    gainStart_ = t.gains;
    gainEnd_ = t.gains;
    feedback_.jump(static_cast<float>(t.feedback));
    mix_.jump(static_cast<float>(t.mix));
    activeVoices_ = 1;
    for (int v = 0; v < 4; ++v)
        if (t.gains[static_cast<size_t>(v)] > silentGain)
            activeVoices_ = v + 1;
    computeDelays();
    for (int c = 0; c < preparedChannels_; ++c)
        delayStart_[c] = delayEnd_[c];
}

void ChorusProcessor::computeDelays() {
    const double framesPerMs = sampleRate_ / 1000;
    const double longest = lineSize_ - 4.0;
    for (int c = 0; c < preparedChannels_; ++c) {
        const double channelPhase = spread_ * c / std::max(preparedChannels_, 2);
        Lanes& delays = delayEnd_[c];
        for (size_t v = 0; v < 4; ++v) {
            const double phase = lfoPhase_ + voicePhase[v] + channelPhase;
            const double frames =
                framesPerMs * baseMs_ * voiceBase[v] * (1 + sweep_ * std::sin(2 * std::numbers::pi * phase));
            delays[v] = static_cast<float>(std::clamp(frames, 2.5, longest));
        }
    }
}

void ChorusProcessor::controlTick() {
    const ChorusTargets t = targetsOf(settings_);
    const double k = tickCoefficient_;
    baseMs_ += k * (t.baseMs - baseMs_);
    sweep_ += k * (t.sweep - sweep_);
    spread_ += k * (t.spread - spread_);
    const auto kf = static_cast<float>(k);
    for (size_t v = 0; v < 4; ++v)
        voiceGains_[v] += kf * (t.gains[v] - voiceGains_[v]);
    feedback_.advance(static_cast<float>(feedback_.end + (t.feedback - feedback_.end) * k));
    mix_.advance(static_cast<float>(mix_.end + (t.mix - mix_.end) * k));
    lfoPhase_ += t.rateHz * spaceTickFrames / sampleRate_;
    lfoPhase_ -= std::floor(lfoPhase_);
    gainStart_ = gainEnd_;
    gainEnd_ = voiceGains_;
    activeVoices_ = 1;
    for (size_t v = 0; v < 4; ++v)
        if (gainStart_[v] > silentGain || gainEnd_[v] > silentGain)
            activeVoices_ = static_cast<int>(v) + 1;
    for (int c = 0; c < preparedChannels_; ++c)
        delayStart_[c] = delayEnd_[c];
    computeDelays();
}

void ChorusProcessor::doProcess(ChannelSpan channels) noexcept {
    if (!isPrepared_ || channels.frameCount() < 1)
        return;
    const int used = std::min(preparedChannels_, channels.channelCount());
    for (int done = 0; done < channels.frameCount();) {
        if (controlPhase_ == 0)
            controlTick();
        const int frames = std::min(channels.frameCount() - done, spaceTickFrames - controlPhase_);
        for (int c = 0; c < used; ++c)
            runChannel(c, channels.channel(c) + done, frames);
        writeIndex_ += static_cast<uint32_t>(frames);
        controlPhase_ = (controlPhase_ + frames) % spaceTickFrames;
        done += frames;
    }
}

void ChorusProcessor::runChannel(int channel, float* samples, int frames) {
    float* const line = storage_.pointer() + int64_t{lineSize_} * channel;
    const uint32_t mask = lineSize_ - 1;
    const Lanes& d0 = delayStart_[channel];
    const Lanes& d1 = delayEnd_[channel];
    const auto voices = static_cast<size_t>(activeVoices_);
    // When every read of the stretch lies behind its writes, the voices are read first, one
    // voice at a time, and the line written after; the arithmetic per frame stays the same.
    float shortest = d0[0];
    for (size_t v = 0; v < voices; ++v)
        shortest = std::min({shortest, d0[v], d1[v]});
    const float phase0 = static_cast<float>(controlPhase_);
    if (shortest >= static_cast<float>(spaceTickFrames + 1)) {
        std::array<float, spaceTickFrames> wet{};
        for (size_t v = 0; v < voices; ++v) {
            const float delayStep = d1[v] - d0[v];
            const float gainStep = gainEnd_[v] - gainStart_[v];
            for (int k = 0; k < frames; ++k) {
                const float r = (phase0 + static_cast<float>(k)) * 0.03125f;
                const uint32_t w = writeIndex_ + static_cast<uint32_t>(k);
                const float delay = d0[v] + delayStep * r;
                const float gain = gainStart_[v] + gainStep * r;
                wet[static_cast<size_t>(k)] += gain * spaceCubicRead(line, mask, w, delay);
            }
        }
        for (int k = 0; k < frames; ++k) {
            const int phase = controlPhase_ + k;
            const float in = samples[k];
            const float y = wet[static_cast<size_t>(k)];
            line[(writeIndex_ + static_cast<uint32_t>(k)) & mask] =
                spaceSoftLimit(in + feedback_.value(phase) * y);
            samples[k] = in + mix_.value(phase) * (y - in);
        }
        return;
    }
    Lanes delayStep{};
    Lanes gainStep{};
    for (size_t v = 0; v < 4; ++v) {
        delayStep[v] = d1[v] - d0[v];
        gainStep[v] = gainEnd_[v] - gainStart_[v];
    }
    for (int k = 0; k < frames; ++k) {
        const int phase = controlPhase_ + k;
        const float r = static_cast<float>(phase) * 0.03125f;
        const uint32_t w = writeIndex_ + static_cast<uint32_t>(k);
        float wet = 0;
        for (size_t v = 0; v < voices; ++v) {
            const float delay = d0[v] + delayStep[v] * r;
            const float gain = gainStart_[v] + gainStep[v] * r;
            wet += gain * spaceCubicRead(line, mask, w, delay);
        }
        const float in = samples[k];
        line[w & mask] = spaceSoftLimit(in + feedback_.value(phase) * wet);
        samples[k] = in + mix_.value(phase) * (wet - in);
    }
}

} // namespace harlune
