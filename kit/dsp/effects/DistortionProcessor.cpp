#include "dsp/effects/DistortionProcessor.h"

#include "base/Clamped.h"
#include "dsp/effects/SaturationCurves.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace harlune {

namespace {

constexpr double glideSeconds = 0.02;
constexpr double fadeSeconds = 0.02;
constexpr int movingChunk = 32;
/// Above every crush factor: the first frame after a reset always takes a new sample.
constexpr double crushRestart = 256;

double finiteOr(double value, double fallback) {
    return std::isfinite(value) ? value : fallback;
}

// One pole toward `target` by the retention `g`; close enough is there.
double glide(double value, double target, double g) {
    const double next = target + g * (value - target);
    return std::abs(next - target) < 1e-6 ? target : next;
}

double gainOf(double dB) {
    return std::pow(10.0, dB / 20);
}

} // namespace

DistortionProcessor::DistortionProcessor() {
    apply(DistortionSettings{});
    snapToTarget();
}

void DistortionProcessor::apply(const EffectSettings& settings) noexcept {
    const auto* distortion = settings.as<DistortionSettings>();
    if (distortion == nullptr)
        return;
    target_ = *distortion;
    const double bits = clamped(finiteOr(target_.bits, 8), 1.0, 24.0);
    crushLevels_ = static_cast<float>(std::exp2(bits - 1));
    crushFactor_ = clamped(finiteOr(target_.downsample, 1), 1.0, 256.0);
    if (!prepared_)
        snapToTarget();
}

DistortionProcessor::Targets DistortionProcessor::clampedTargets() const {
    const double toneHz = clamped(finiteOr(target_.toneHz, 20000), 20.0, 0.45 * sampleRate_);
    return {.driveDB = clamped(finiteOr(target_.driveDB, 0), -24.0, 60.0),
            .toneLogHz = std::log(toneHz),
            .outputDB = clamped(finiteOr(target_.outputDB, 0), -96.0, 24.0),
            .mix = clamped(finiteOr(target_.mix, 1), 0.0, 1.0)};
}

// The RBJ low-pass with a Q of 1/sqrt(2).
BiquadCoefficients DistortionProcessor::toneCoefficients(double logHz, double sampleRate) {
    const double w = 2 * std::numbers::pi * std::exp(logHz) / sampleRate;
    const double alpha = std::sin(w) / std::numbers::sqrt2;
    const double d = 1 + alpha;
    const double s = std::sin(w / 2);
    const double oneMinusCos = 2 * s * s;
    return {.b0 = oneMinusCos * 0.5 / d,
            .b1 = oneMinusCos / d,
            .b2 = oneMinusCos * 0.5 / d,
            .a1 = -2 * std::cos(w) / d,
            .a2 = (1 - alpha) / d};
}

void DistortionProcessor::snapToTarget() {
    const Targets t = clampedTargets();
    driveDB_ = t.driveDB;
    toneLogHz_ = t.toneLogHz;
    outputDB_ = t.outputDB;
    mix_ = t.mix;
    tone_ = toneCoefficients(toneLogHz_, sampleRate_);
    mode_ = target_.mode;
    previousMode_ = target_.mode;
    fade_ = 1;
}

void DistortionProcessor::doPrepare(double sampleRate, int channelCount, int maxFrames) {
    prepared_ = false;
    oversamplers_.clear();
    oversamplers_.shrink_to_fit();
    sampleRate_ = sampleRate > 0 ? sampleRate : 48000;
    channelCount_ = std::clamp(channelCount, 1, maxChannels);
    maxFrames_ = std::max(maxFrames, 1);
    oversamplers_.reserve(static_cast<size_t>(channelCount_));
    for (int c = 0; c < channelCount_; ++c)
        oversamplers_.emplace_back(maxFrames_);
    dryLine_.assign(static_cast<size_t>(channelCount_), {});
    const auto block = static_cast<size_t>(maxFrames_);
    dryBuffer_.assign(static_cast<size_t>(channelCount_) * block, 0.0f);
    wetBuffer_.assign(static_cast<size_t>(channelCount_) * block, 0.0f);
    altWet_.assign(block, 0.0f);
    altOS_.assign(Oversampler4x::factor * block, 0.0f);
    driveRamp_.assign(block, 0.0f);
    dcRetention_ = std::exp(-10 * std::numbers::pi / sampleRate_);
    prepared_ = true;
}

void DistortionProcessor::doReset() noexcept {
    for (Oversampler4x& oversampler : oversamplers_)
        oversampler.clear();
    for (auto& line : dryLine_)
        line.fill(0.0f);
    dryPos_.fill(0);
    crushHold_.fill(0.0f);
    crushPhase_.fill(crushRestart);
    for (auto& state : filterState_)
        state.fill(0.0);
    snapToTarget();
}

void DistortionProcessor::doProcess(ChannelSpan channels) noexcept {
    const int frames = channels.frameCount();
    if (!prepared_ || frames < 1)
        return;
    const ChannelSpan used = channels.firstChannels(channelCount_);
    const double n = frames;

    if (fade_ >= 1 && target_.mode != mode_) {
        previousMode_ = mode_;
        mode_ = target_.mode;
        fade_ = 0;
        // The filters would otherwise play what they held before the crusher took over.
        if (!isOversampled(previousMode_) && isOversampled(mode_))
            for (Oversampler4x& oversampler : oversamplers_)
                oversampler.clear();
    }
    const bool fading = fade_ < 1;
    const bool needOS = isOversampled(mode_) || (fading && isOversampled(previousMode_));
    const bool needCrush =
        mode_ == SaturationMode::bitcrush || (fading && previousMode_ == SaturationMode::bitcrush);
    const bool twoCurves =
        fading && mode_ != previousMode_ && isOversampled(mode_) && isOversampled(previousMode_);

    const double g = std::exp(-1 / ((sampleRate_ / n) * glideSeconds));
    const double gain0 = gainOf(driveDB_);
    driveDB_ = glide(driveDB_, clampedTargets().driveDB, g);
    const double gain1 = gainOf(driveDB_);
    for (int f = 0; f < frames; ++f)
        driveRamp_[static_cast<size_t>(f)] = static_cast<float>(gain0 + (gain1 - gain0) * (f + 1) / n);

    const double fadeEnd = std::min(fade_ + n / (sampleRate_ * fadeSeconds), 1.0);
    for (int c = 0; c < used.channelCount(); ++c)
        runChannel(c, used.channel(c), frames, needOS, needCrush, twoCurves, fadeEnd);
    fade_ = fadeEnd;
    mixAndFilter(used);
}

void DistortionProcessor::runChannel(int c, const float* input, int frames, bool needOS, bool needCrush,
                                     bool twoCurves, double fadeEnd) noexcept {
    const auto at = static_cast<size_t>(c);
    float* dry = dryBuffer_.data() + at * static_cast<size_t>(maxFrames_);
    float* wet = wetBuffer_.data() + at * static_cast<size_t>(maxFrames_);
    const float* drive = driveRamp_.data();

    // The dry signal, 47 frames late: in step with both wet paths.
    auto& ring = dryLine_[at];
    int pos = dryPos_[at];
    for (int f = 0; f < frames; ++f) {
        dry[f] = ring[static_cast<size_t>(pos)];
        ring[static_cast<size_t>(pos)] = input[f];
        pos = pos + 1 == dryDelay ? 0 : pos + 1;
    }
    dryPos_[at] = pos;

    if (needOS) {
        float* driven = altWet_.data();
        for (int f = 0; f < frames; ++f)
            driven[f] = input[f] * drive[f];
        Oversampler4x& oversampler = oversamplers_[at];
        oversampler.upsample(driven, frames);
        float* os = oversampler.oversampled();
        const int fast = Oversampler4x::factor * frames;
        if (twoCurves) {
            float* previous = altOS_.data();
            std::copy_n(os, fast, previous);
            SaturationCurves::shape(previousMode_, previous, fast);
            SaturationCurves::shape(mode_, os, fast);
            const double step = (fadeEnd - fade_) / fast;
            for (int i = 0; i < fast; ++i) {
                const auto r = static_cast<float>(fade_ + step * (i + 1));
                os[i] = previous[i] + (os[i] - previous[i]) * r;
            }
        } else {
            SaturationCurves::shape(isOversampled(mode_) ? mode_ : previousMode_, os, fast);
        }
        oversampler.downsample(wet, frames);
    }

    if (needCrush) {
        // Alone, the crusher writes the wet buffer; beside the oversampled path, its own.
        float* crushed = needOS ? altWet_.data() : wet;
        const float levels = crushLevels_;
        double phase = crushPhase_[at];
        float hold = crushHold_[at];
        for (int f = 0; f < frames; ++f) {
            phase += 1;
            if (phase >= crushFactor_) {
                phase -= crushFactor_;
                if (phase >= crushFactor_)
                    phase = 0;
                const float v = std::clamp(dry[f] * drive[f], -1.0f, 1.0f);
                hold = std::trunc(levels * v) / levels;
            }
            crushed[f] = hold;
        }
        crushPhase_[at] = phase;
        crushHold_[at] = hold;

        if (needOS) {
            // A crossfade between the crusher and a curve, from the old mode's output.
            const bool toCrush = mode_ == SaturationMode::bitcrush;
            const double step = (fadeEnd - fade_) / frames;
            for (int f = 0; f < frames; ++f) {
                const float from = toCrush ? wet[f] : crushed[f];
                const float to = toCrush ? crushed[f] : wet[f];
                wet[f] = from + (to - from) * static_cast<float>(fade_ + step * (f + 1));
            }
        }
    }
}

void DistortionProcessor::mixAndFilter(ChannelSpan channels) noexcept {
    const Targets t = clampedTargets();
    const int frames = channels.frameCount();
    const auto block = static_cast<size_t>(maxFrames_);
    for (int done = 0; done < frames;) {
        const bool moving = toneLogHz_ != t.toneLogHz || outputDB_ != t.outputDB || mix_ != t.mix;
        const int m = moving ? std::min(movingChunk, frames - done) : frames - done;
        const double span = m;
        const double g2 = std::exp(-1 / ((sampleRate_ / span) * glideSeconds));

        const BiquadCoefficients from = tone_;
        const bool toneMoves = toneLogHz_ != t.toneLogHz;
        if (toneMoves) {
            toneLogHz_ = glide(toneLogHz_, t.toneLogHz, g2);
            tone_ = toneCoefficients(toneLogHz_, sampleRate_);
        }
        const BiquadCoefficients& to = tone_;
        const double gain0 = gainOf(outputDB_);
        const double mix0 = mix_;
        outputDB_ = glide(outputDB_, t.outputDB, g2);
        mix_ = glide(mix_, t.mix, g2);
        const double gainStep = (gainOf(outputDB_) - gain0) / span;
        const double mixStep = (mix_ - mix0) / span;

        for (int c = 0; c < channels.channelCount(); ++c) {
            const float* dry = dryBuffer_.data() + static_cast<size_t>(c) * block + done;
            const float* wet = wetBuffer_.data() + static_cast<size_t>(c) * block + done;
            float* out = channels.channel(c) + done;
            auto& [x1, y1, s1, s2] = filterState_[static_cast<size_t>(c)];
            BiquadCoefficients k = from;
            for (int f = 0; f < m; ++f) {
                const double i = f + 1;
                if (toneMoves) {
                    const double r = i / span;
                    k = {from.b0 + (to.b0 - from.b0) * r, from.b1 + (to.b1 - from.b1) * r,
                         from.b2 + (to.b2 - from.b2) * r, from.a1 + (to.a1 - from.a1) * r,
                         from.a2 + (to.a2 - from.a2) * r};
                }
                const double x = wet[f];
                const double y = dcRetention_ * y1 + (x - x1);
                x1 = x;
                y1 = y;
                const double filtered = s1 + k.b0 * y;
                s1 = s2 + k.b1 * y - k.a1 * filtered;
                s2 = k.b2 * y - k.a2 * filtered;
                const double mix = mix0 + mixStep * i;
                const double gain = gain0 + gainStep * i;
                out[f] = static_cast<float>(dry[f] * (1 - mix) + mix * gain * filtered);
            }
        }
        done += m;
    }
}

} // namespace harlune
