#include "dsp/effects/CompressorProcessor.h"

#include "dsp/VectorMath.h"
#include "dsp/effects/CompressorCurve.h"
#include "dsp/effects/DynamicsMath.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace harlune {

namespace {

/// log2(10) / 20 in single precision: dB to a base-2 exponent.
constexpr double dbToLog2 = static_cast<double>(0.16609640f);

/// A setting made fit for the signal: NaN takes `fallback`, the rest (infinities too) is clamped.
double settled(double value, double lowest, double highest, double fallback) {
    return std::isnan(value) ? fallback : std::clamp(value, lowest, highest);
}

/// Per-frame retention of a one-pole smoother with time constant `ms`; at least 1 µs.
double retention(double ms, double sampleRate) {
    if (sampleRate <= 0)
        return 0;
    const double seconds = ms <= 0.001 ? 1e-6 : ms / 1000;
    return std::exp(-1 / (sampleRate * seconds));
}

double snapped(double value, double target) {
    return std::abs(value - target) <= 1e-6 ? target : value;
}

} // namespace

CompressorProcessor::CompressorProcessor() {
    const Levels levels = levelsOf(target_);
    current_ = target_;
    makeupDB_ = levels.makeupDB;
    mix_ = levels.mix;
    updateTimeConstants();
}

CompressorProcessor::Levels CompressorProcessor::levelsOf(const CompressorSettings& settings) {
    const CompressorSettings defaults;
    CompressorSettings clamped = settings;
    clamped.thresholdDB = settled(settings.thresholdDB, -200, 200, defaults.thresholdDB);
    clamped.ratio = settled(settings.ratio, 1, 10000, defaults.ratio);
    clamped.kneeDB = settled(settings.kneeDB, 0, 200, defaults.kneeDB);
    clamped.makeupGainDB = settled(settings.makeupGainDB, -96, 96, defaults.makeupGainDB);
    return {.thresholdDB = clamped.thresholdDB,
            .ratio = clamped.ratio,
            .kneeDB = clamped.kneeDB,
            .makeupDB = clamped.effectiveMakeupDB(),
            .mix = std::isfinite(settings.mix) ? std::clamp(settings.mix, 0.0, 1.0) : 1.0};
}

void CompressorProcessor::updateTimeConstants() {
    const CompressorSettings defaults;
    attackRetention_ = retention(settled(target_.attackMs, 0, 60000, defaults.attackMs), sampleRate_);
    releaseRetention_ = retention(settled(target_.releaseMs, 0, 60000, defaults.releaseMs), sampleRate_);
    rmsRetention_ = retention(10, sampleRate_);
    glideRetention_ = retention(20, sampleRate_);
}

void CompressorProcessor::apply(const EffectSettings& settings) noexcept {
    const auto* compressor = settings.as<CompressorSettings>();
    if (compressor == nullptr)
        return;
    target_ = *compressor;
    if (prepared_) {
        current_.attackMs = target_.attackMs;
        current_.releaseMs = target_.releaseMs;
        current_.autoMakeup = target_.autoMakeup;
        current_.detection = target_.detection;
        current_.stereoLink = target_.stereoLink;
    } else {
        const Levels levels = levelsOf(target_);
        current_ = target_;
        current_.thresholdDB = levels.thresholdDB;
        current_.ratio = levels.ratio;
        current_.kneeDB = levels.kneeDB;
        makeupDB_ = levels.makeupDB;
        mix_ = levels.mix;
    }
    updateTimeConstants();
}

float CompressorProcessor::gainReductionDB() const noexcept {
    return std::bit_cast<float>(reductionBits_.load(std::memory_order_relaxed));
}

void CompressorProcessor::doPrepare(double sampleRate, int channelCount, int maxFrames) {
    prepared_ = false;
    channelCount_ = std::clamp(channelCount, 1, maxChannels);
    maxFrames_ = std::max(maxFrames, 1);
    sampleRate_ = sampleRate > 0 ? sampleRate : 48000;
    scratch_.assign(static_cast<size_t>(channelCount_) * static_cast<size_t>(maxFrames_), 0.0f);
    mixCurve_.assign(static_cast<size_t>(maxFrames_), 1.0f);
    prepared_ = true;
    updateTimeConstants();
}

void CompressorProcessor::doReset() noexcept {
    smoothed_.fill(0);
    meanSquare_.fill(0);
    const Levels levels = levelsOf(target_);
    current_ = target_;
    current_.thresholdDB = levels.thresholdDB;
    current_.ratio = levels.ratio;
    current_.kneeDB = levels.kneeDB;
    makeupDB_ = levels.makeupDB;
    mix_ = levels.mix;
    reductionBits_.store(std::bit_cast<uint32_t>(0.0f), std::memory_order_relaxed);
}

void CompressorProcessor::detect(ChannelSpan channels, bool linked) {
    const int count = channels.channelCount();
    const int frames = channels.frameCount();
    if (target_.detection == DetectionMode::peak) {
        dynamicsMath::magnitude(row(0), channels.channel(0), frames);
        for (int c = 1; c < count; ++c) {
            if (linked)
                dynamicsMath::maxMagnitude(row(0), channels.channel(c), frames);
            else
                dynamicsMath::magnitude(row(c), channels.channel(c), frames);
        }
        for (int r = 0; r < (linked ? 1 : count); ++r)
            dynamicsMath::levelDB(row(r), frames, 1e-15f, 6.0205998f);
        return;
    }
    // The mean square is a recursion, so it runs frame by frame in double, two channels to a
    // loop so that their chains overlap.
    const double step = 1 - rmsRetention_;
    for (int c = 0; c < count; c += 2) {
        const bool pair = c + 1 < count;
        const float* x0 = channels.channel(c);
        const float* x1 = channels.channel(pair ? c + 1 : c);
        float* out0 = row(linked ? 0 : c);
        float* out1 = row(linked ? 0 : (pair ? c + 1 : c));
        double m0 = meanSquare_[static_cast<size_t>(c)];
        double m1 = pair ? meanSquare_[static_cast<size_t>(c + 1)] : m0;
        const bool merge = linked && c > 0;
        for (int f = 0; f < frames; ++f) {
            const double v0 = x0[f], v1 = x1[f];
            m0 += step * (v0 * v0 - m0);
            m1 += step * (v1 * v1 - m1);
            const auto level0 = static_cast<float>(m0);
            const auto level1 = static_cast<float>(m1);
            if (linked) {
                const float loudest = std::max(level0, level1);
                out0[f] = merge ? std::max(out0[f], loudest) : loudest;
            } else {
                out0[f] = level0;
                out1[f] = level1; // the same row as out0 for an odd last channel, with the same value
            }
        }
        // A non-finite input would poison the window for good.
        meanSquare_[static_cast<size_t>(c)] = std::isfinite(m0) ? m0 : 0;
        if (pair)
            meanSquare_[static_cast<size_t>(c + 1)] = std::isfinite(m1) ? m1 : 0;
    }
    for (int r = 0; r < (linked ? 1 : count); ++r)
        dynamicsMath::levelDB(row(r), frames, 1e-30f, 3.0102999f);
}

CompressorProcessor::Levels CompressorProcessor::computeGains(int source, int into, int frames, int channel,
                                                              bool gliding, const Levels& goal) {
    const float* level = row(source);
    float* gain = row(into);
    double s = smoothed_[static_cast<size_t>(channel)];
    Levels now{current_.thresholdDB, current_.ratio, current_.kneeDB, makeupDB_, mix_};
    const double attack = attackRetention_;
    const double release = releaseRetention_;
    if (!gliding) {
        // The row already holds the curve's reduction (see `doProcess`). `source` may equal
        // `into`: each frame is read before it is written.
        const float* desired = level;
        const double makeup = now.makeupDB;
        for (int f = 0; f < frames; ++f) {
            const double d = desired[f];
            const double apart = s - d;
            s = d + apart * (apart <= 0 ? release : attack);
            gain[f] = static_cast<float>((makeup + s) * dbToLog2);
        }
    } else {
        const double g = glideRetention_;
        float* mix = mixCurve_.data();
        for (int f = 0; f < frames; ++f) {
            now.thresholdDB = goal.thresholdDB + g * (now.thresholdDB - goal.thresholdDB);
            now.ratio = goal.ratio + g * (now.ratio - goal.ratio);
            now.kneeDB = goal.kneeDB + g * (now.kneeDB - goal.kneeDB);
            now.makeupDB = goal.makeupDB + g * (now.makeupDB - goal.makeupDB);
            now.mix = goal.mix + g * (now.mix - goal.mix);
            const double desired =
                CompressorCurve::of(now.thresholdDB, now.ratio, now.kneeDB).reductionDB(level[f]);
            s = desired + (s - desired) * (s <= desired ? release : attack);
            gain[f] = static_cast<float>((now.makeupDB + s) * dbToLog2);
            if (channel == 0)
                mix[f] = static_cast<float>(now.mix);
        }
    }
    smoothed_[static_cast<size_t>(channel)] = std::abs(s) < 1e-12 ? 0 : s;
    return now;
}

void CompressorProcessor::doProcess(ChannelSpan channels) noexcept {
    const int count = std::min(channels.channelCount(), channelCount_);
    const int frames = channels.frameCount();
    if (!prepared_ || frames < 1 || count < 1 || scratch_.empty() || mixCurve_.empty())
        return;
    channels = channels.firstChannels(count);
    const bool linked = target_.stereoLink && count > 1;
    detect(channels, linked);

    // Linked channels share one gain computer, except while gains that differed when the link
    // was switched on still converge: then each keeps its own, all reading the common level.
    int computers = count;
    if (linked) {
        computers = 1;
        for (int c = 1; c < count; ++c)
            if (smoothed_[static_cast<size_t>(c)] != smoothed_[0])
                computers = count;
    }
    const Levels goal = levelsOf(target_);
    const Levels start{current_.thresholdDB, current_.ratio, current_.kneeDB, makeupDB_, mix_};
    const bool gliding = start != goal;
    // With the curve still, it needs no state and runs over the block ahead of the smoother, the
    // one true recursion; while it glides it moves frame by frame inside the gain computers.
    if (!gliding) {
        const CompressorCurve curve = CompressorCurve::of(start.thresholdDB, start.ratio, start.kneeDB);
        for (int r = 0; r < (linked ? 1 : count); ++r)
            dynamicsMath::curveReductionDB(row(r), frames, static_cast<float>(curve.thresholdDB),
                                           static_cast<float>(curve.slope), static_cast<float>(curve.kneeDB));
    }
    // From the last down, so that level row 0 is read by every computer before it is overwritten.
    Levels end = start;
    for (int k = computers - 1; k >= 0; --k)
        end = computeGains(linked ? 0 : k, k, frames, k, gliding, goal);

    if (linked) {
        bool together = true;
        for (int c = 1; c < count; ++c)
            together = together && std::abs(smoothed_[static_cast<size_t>(c)] - smoothed_[0]) <= 1e-9;
        if (together || computers == 1)
            std::fill_n(smoothed_.begin() + 1, count - 1, smoothed_[0]);
    }
    const bool mixMoved = gliding && end.mix != start.mix;
    if (gliding) {
        current_.thresholdDB = snapped(end.thresholdDB, goal.thresholdDB);
        current_.ratio = snapped(end.ratio, goal.ratio);
        current_.kneeDB = snapped(end.kneeDB, goal.kneeDB);
        makeupDB_ = snapped(end.makeupDB, goal.makeupDB);
        mix_ = snapped(end.mix, goal.mix);
    }
    reductionBits_.store(std::bit_cast<uint32_t>(static_cast<float>(0.0 - smoothed_[0])),
                         std::memory_order_relaxed);

    // The mix acts on the gain, so a partly wet compressor needs no dry copy.
    for (int k = 0; k < computers; ++k) {
        dynamicsMath::exp2InPlace(row(k), frames);
        if (mixMoved)
            dynamicsMath::wetGainCurve(row(k), mixCurve_.data(), frames);
        else if (mix_ != 1)
            dynamicsMath::wetGain(row(k), frames, static_cast<float>(mix_));
    }
    for (int c = 0; c < count; ++c)
        vec::multiply(channels.channel(c), row(computers == 1 ? 0 : c), frames);
}

} // namespace harlune
