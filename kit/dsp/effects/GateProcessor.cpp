#include "dsp/effects/GateProcessor.h"

#include "dsp/VectorMath.h"
#include "dsp/effects/DynamicsMath.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace harlune {

GateProcessor::GateProcessor() {
    updateDerived();
    doReset();
}

void GateProcessor::updateDerived() {
    const GateSettings& s = settings_;
    const double threshold = std::isfinite(s.thresholdDB) ? s.thresholdDB : -45.0;
    openLevel_ = static_cast<float>(std::pow(10.0, threshold / 20));
    const double hysteresis = std::isfinite(s.hysteresisDB) && s.hysteresisDB >= 0 ? s.hysteresisDB : 0.0;
    closeLevel_ = static_cast<float>(std::pow(10.0, (threshold - hysteresis) / 20));
    // Capped well inside an int: a hold of over five hours at 48 kHz is as good as forever.
    holdFrames_ =
        std::isfinite(s.holdMs)
            ? static_cast<int>(std::round(std::min(sampleRate_ * std::max(s.holdMs, 0.0) / 1000, 1e9)))
            : 0;
    const double attackSeconds = std::isfinite(s.attackMs) ? std::max(s.attackMs, 0.0) / 1000 : 0.001;
    const double releaseSeconds = std::isfinite(s.releaseMs) ? std::max(s.releaseMs, 0.0) / 1000 : 0.15;
    attackStep_ = 1 / std::max(1.0, attackSeconds * sampleRate_);
    releaseStep_ = 1 / std::max(1.0, releaseSeconds * sampleRate_);
    targetRange_ =
        std::isfinite(s.rangeDB) ? std::min(std::pow(10.0, std::min(s.rangeDB, 0.0) / 20), 1.0) : 0.001;
    detectorHoldFrames_ = static_cast<int>(sampleRate_ * 0.02);
    const double decay = sampleRate_ > 0 ? std::exp(-1 / (sampleRate_ * 0.01)) : 0.0;
    detectorDecay_ = static_cast<float>(decay);
    rangeRetention_ = decay;
}

void GateProcessor::apply(const EffectSettings& settings) noexcept {
    const auto* gate = settings.as<GateSettings>();
    if (gate == nullptr)
        return;
    settings_ = *gate;
    updateDerived();
    if (!prepared_)
        range_ = targetRange_;
}

float GateProcessor::gainReductionDB() const noexcept {
    return std::bit_cast<float>(reductionBits_.load(std::memory_order_relaxed));
}

void GateProcessor::storeMeter(double gain) {
    const auto db = static_cast<float>(-20 * std::log10(std::max(gain, 1e-10)));
    reductionBits_.store(std::bit_cast<uint32_t>(db), std::memory_order_relaxed);
}

void GateProcessor::doPrepare(double sampleRate, int channelCount, int maxFrames) {
    prepared_ = false;
    channelCount_ = std::clamp(channelCount, 1, maxChannels);
    maxFrames_ = std::max(maxFrames, 1);
    sampleRate_ = sampleRate > 0 ? sampleRate : 48000;
    gains_.assign(static_cast<size_t>(channelCount_) * static_cast<size_t>(maxFrames_), 1.0f);
    prepared_ = true;
    updateDerived();
}

void GateProcessor::doReset() noexcept {
    envelope_.fill(0);
    envelopeHold_.fill(0);
    isOpen_.fill(false);
    holdLeft_.fill(0);
    position_.fill(0);
    range_ = targetRange_;
    rangeEnd_ = targetRange_;
    storeMeter(range_);
}

void GateProcessor::relink(bool linked, int count) {
    if (linked) {
        // One open channel opens all.
        for (int c = 1; c < count; ++c) {
            const auto i = static_cast<size_t>(c);
            envelope_[0] = std::max(envelope_[0], envelope_[i]);
            envelopeHold_[0] = std::max(envelopeHold_[0], envelopeHold_[i]);
            isOpen_[0] = isOpen_[0] || isOpen_[i];
            holdLeft_[0] = std::max(holdLeft_[0], holdLeft_[i]);
        }
        return;
    }
    for (int c = 1; c < count; ++c) {
        const auto i = static_cast<size_t>(c);
        envelope_[i] = envelope_[0];
        envelopeHold_[i] = envelopeHold_[0];
        isOpen_[i] = isOpen_[0];
        holdLeft_[i] = holdLeft_[0];
    }
}

int GateProcessor::detect(int index, int frames) {
    const auto i = static_cast<size_t>(index);
    float envelope = envelope_[i];
    int envelopeHold = envelopeHold_[i];
    bool open = isOpen_[i];
    int holdLeft = holdLeft_[i];
    float* levels = row(index);
    int openFrames = 0;
    for (int f = 0; f < frames; ++f) {
        // A peak envelope that holds 20 ms before it decays, so that a low tone's zero crossings
        // do not chatter the gate.
        const float v = levels[f];
        if (v >= envelope) {
            envelope = v;
            envelopeHold = detectorHoldFrames_;
        } else if (envelopeHold > 0) {
            --envelopeHold;
        } else {
            envelope *= detectorDecay_;
        }
        if (envelope >= openLevel_) {
            open = true;
            holdLeft = holdFrames_;
        } else if (open) {
            if (envelope >= closeLevel_)
                holdLeft = holdFrames_;
            else if (holdLeft > 0)
                --holdLeft;
            else
                open = false;
        }
        levels[f] = open ? 1.0f : 0.0f;
        openFrames += open ? 1 : 0;
    }
    envelope_[i] = envelope;
    envelopeHold_[i] = envelopeHold;
    isOpen_[i] = open;
    holdLeft_[i] = holdLeft;
    return openFrames == frames ? 1 : (openFrames == 0 ? 0 : -1);
}

double GateProcessor::ramp(int source, int into, int channel, int frames) {
    const float* open = row(source);
    float* gain = row(into);
    double rng = range_;
    double p = position_[static_cast<size_t>(channel)];
    const double target = targetRange_;
    const double retention = rangeRetention_;
    const double up = attackStep_;
    const double down = releaseStep_;
    double last = 1;
    // `source` may equal `into`: each frame is read before it is written.
    for (int f = 0; f < frames; ++f) {
        rng = target + retention * (rng - target);
        p = open[f] != 0 ? std::min(p + up, 1.0) : std::max(p - down, 0.0);
        last = rng + (1 - rng) * p * p * (3 - 2 * p);
        gain[f] = static_cast<float>(last);
    }
    position_[static_cast<size_t>(channel)] = p;
    rangeEnd_ = rng;
    return last;
}

void GateProcessor::doProcess(ChannelSpan channels) noexcept {
    const int count = std::min(channels.channelCount(), channelCount_);
    const int frames = channels.frameCount();
    if (!prepared_ || frames < 1 || count < 1 || gains_.empty())
        return;
    const bool linked = settings_.stereoLink && count > 1;
    if (linked != wasLinked_) {
        relink(linked, count);
        wasLinked_ = linked;
    }
    // Positions that differed when the link was switched on move in step, each from its own value.
    bool separate = false;
    for (int c = 1; linked && c < count; ++c)
        separate = separate || position_[static_cast<size_t>(c)] != position_[0];

    const int detectors = linked ? 1 : count;
    dynamicsMath::magnitude(row(0), channels.channel(0), frames);
    for (int c = 1; c < count; ++c) {
        if (linked)
            dynamicsMath::maxMagnitude(row(0), channels.channel(c), frames);
        else
            dynamicsMath::magnitude(row(c), channels.channel(c), frames);
    }
    // A gate that rests (fully open or fully closed through the block, range still) has one
    // gain per detector, the same the ramp would give frame by frame: 1 or the range.
    bool resting = !separate && range_ == targetRange_;
    std::array<int, maxChannels> states{};
    for (int d = 0; d < detectors; ++d) {
        const auto i = static_cast<size_t>(d);
        states[i] = detect(d, frames);
        resting = resting && ((states[i] == 1 && position_[i] == 1) || (states[i] == 0 && position_[i] == 0));
    }
    if (resting) {
        double smallest = 1;
        for (int c = 0; c < count; ++c) {
            const double gain = states[static_cast<size_t>(linked ? 0 : c)] == 1 ? 1.0 : range_;
            smallest = std::min(smallest, gain);
            if (gain != 1)
                vec::scale(channels.channel(c), frames, static_cast<float>(gain));
        }
        if (linked)
            std::fill_n(position_.begin() + 1, count - 1, position_[0]);
        storeMeter(smallest);
        return;
    }

    // From the last down, so that flag row 0 is read by every channel before it is overwritten.
    const int rows = separate ? count : detectors;
    double smallest = 1;
    for (int k = rows - 1; k >= 0; --k)
        smallest = std::min(smallest, ramp(separate ? 0 : k, k, k, frames));
    range_ = std::abs(rangeEnd_ - targetRange_) <= 1e-9 ? targetRange_ : rangeEnd_;
    if (linked && !separate)
        std::fill_n(position_.begin() + 1, count - 1, position_[0]);
    storeMeter(smallest);

    for (int c = 0; c < count; ++c)
        vec::multiply(channels.channel(c), row(rows == 1 ? 0 : c), frames);
}

} // namespace harlune
