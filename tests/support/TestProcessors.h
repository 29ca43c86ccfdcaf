#pragma once

#include "base/EffectProcessor.h"
#include "dsp/effects/ConfigurableEffect.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace harlune::testing {

/// Delays every channel by `delay` frames and reports that as its latency.
class LatencyProcessor final : public EffectProcessor {
public:
    explicit LatencyProcessor(int delay) : delay_(delay) {}
    int tailFrames() const override { return 0; }
    int latencyFrames() const override { return delay_; }

private:
    void doPrepare(double, int channelCount, int) override {
        lines_.assign(static_cast<size_t>(channelCount),
                      std::vector<float>(static_cast<size_t>(std::max(delay_, 1)), 0.0f));
    }
    void doProcess(ChannelSpan channels) noexcept override {
        if (delay_ == 0)
            return;
        for (int c = 0; c < channels.channelCount(); ++c) {
            auto& line = lines_[static_cast<size_t>(c)];
            size_t at = position_;
            for (float& x : channels.samples(c)) {
                std::swap(x, line[at]);
                at = at + 1 == line.size() ? 0 : at + 1;
            }
        }
        position_ = (position_ + static_cast<size_t>(channels.frameCount())) % static_cast<size_t>(delay_);
    }
    void doReset() noexcept override {
        for (auto& line : lines_)
            std::fill(line.begin(), line.end(), 0.0f);
        position_ = 0;
    }

    int delay_;
    std::vector<std::vector<float>> lines_;
    size_t position_ = 0;
};

/// Adds one echo at half level `echo` frames later, and reports the echo as its tail.
class EchoProcessor final : public EffectProcessor {
public:
    explicit EchoProcessor(int echo) : delay_(echo) {}
    int tailFrames() const override { return delay_.latencyFrames(); }
    int latencyFrames() const override { return 0; }

private:
    void doPrepare(double sampleRate, int channelCount, int maxFrames) override {
        delay_.prepare(sampleRate, channelCount, maxFrames);
        dry_.assign(static_cast<size_t>(channelCount), std::vector<float>(static_cast<size_t>(maxFrames)));
    }
    void doProcess(ChannelSpan channels) noexcept override {
        const auto n = static_cast<size_t>(channels.frameCount());
        for (int c = 0; c < channels.channelCount(); ++c)
            std::copy_n(channels.channel(c), n, dry_[static_cast<size_t>(c)].begin());
        delay_.process(channels);
        for (int c = 0; c < channels.channelCount(); ++c)
            for (size_t i = 0; i < n; ++i)
                channels.channel(c)[i] = dry_[static_cast<size_t>(c)][i] + 0.5f * channels.channel(c)[i];
    }
    void doReset() noexcept override { delay_.reset(); }

    LatencyProcessor delay_;
    std::vector<std::vector<float>> dry_;
};

/// A one-pole low-pass per channel: its state makes any error in chunking visible.
class SmoothingProcessor final : public EffectProcessor {
public:
    /// An impulse decays by 0.9 a frame: 66 frames on, it is 60 dB under its peak.
    int tailFrames() const override { return 66; }
    int latencyFrames() const override { return 0; }

private:
    void doPrepare(double, int channelCount, int) override {
        state_.assign(static_cast<size_t>(channelCount), 0.0f);
    }
    void doProcess(ChannelSpan channels) noexcept override {
        for (int c = 0; c < channels.channelCount(); ++c)
            for (float& x : channels.samples(c))
                x = state_[static_cast<size_t>(c)] += 0.1f * (x - state_[static_cast<size_t>(c)]);
    }
    void doReset() noexcept override { std::fill(state_.begin(), state_.end(), 0.0f); }

    std::vector<float> state_;
};

/// Scales every channel: enough to see whether, where and with which settings it ran. Takes its
/// factor from the output gain of distortion settings and ignores every other kind.
class ScaleProcessor final : public ConfigurableEffect {
public:
    explicit ScaleProcessor(float factor = 1) : factor_(factor) {}
    void apply(const EffectSettings& settings) noexcept override {
        if (const auto* distortion = settings.as<DistortionSettings>())
            factor_ = static_cast<float>(std::pow(10.0, distortion->outputDB / 20));
    }
    int tailFrames() const override { return 0; }
    int latencyFrames() const override { return 0; }
    int calls = 0; ///< `doProcess` calls

private:
    void doPrepare(double, int, int) override {}
    void doProcess(ChannelSpan channels) noexcept override {
        ++calls;
        for (int c = 0; c < channels.channelCount(); ++c)
            for (float& x : channels.samples(c))
                x *= factor_;
    }
    void doReset() noexcept override {}

    float factor_;
};

} // namespace harlune::testing
