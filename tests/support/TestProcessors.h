#pragma once

#include "base/EffectProcessor.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace harlune::testing {

/// Delays every channel by `delay` frames and reports that as its latency.
class LatencyProcessor final : public EffectProcessor {
public:
    explicit LatencyProcessor(int delay) : delay_(delay) {}
    void prepare(double, int channelCount, int) override {
        lines_.assign(static_cast<size_t>(std::max(channelCount, 1)),
                      std::vector<float>(static_cast<size_t>(std::max(delay_, 1)), 0.0f));
        reset();
    }
    void process(ChannelPointers channels, int frameCount) noexcept override {
        if (delay_ == 0)
            return;
        const size_t count = std::min(channels.size(), lines_.size());
        for (size_t c = 0; c < count; ++c) {
            auto& line = lines_[c];
            size_t at = position_;
            for (int i = 0; i < frameCount; ++i) {
                std::swap(channels[c][i], line[at]);
                at = at + 1 == line.size() ? 0 : at + 1;
            }
        }
        position_ = (position_ + static_cast<size_t>(frameCount)) % static_cast<size_t>(delay_);
    }
    void reset() noexcept override {
        for (auto& line : lines_)
            std::fill(line.begin(), line.end(), 0.0f);
        position_ = 0;
    }
    int tailFrames() const override { return 0; }
    int latencyFrames() const override { return delay_; }

private:
    int delay_;
    std::vector<std::vector<float>> lines_;
    size_t position_ = 0;
};

/// Adds one echo at half level `echo` frames later, and reports the echo as its tail.
class EchoProcessor final : public EffectProcessor {
public:
    explicit EchoProcessor(int echo) : delay_(echo) {}
    void prepare(double sampleRate, int channelCount, int maxFrames) override {
        delay_.prepare(sampleRate, channelCount, maxFrames);
        dry_.assign(static_cast<size_t>(std::max(channelCount, 1)),
                    std::vector<float>(static_cast<size_t>(maxFrames)));
    }
    void process(ChannelPointers channels, int frameCount) noexcept override {
        // Processes in pieces of at most the prepared size, as real processors with scratch do.
        for (int done = 0; done < frameCount;) {
            const int n = std::min(frameCount - done, static_cast<int>(dry_.front().size()));
            float* pieces[8] = {};
            const size_t count = std::min({channels.size(), dry_.size(), size_t{8}});
            for (size_t c = 0; c < count; ++c) {
                pieces[c] = channels[c] + done;
                std::copy(pieces[c], pieces[c] + n, dry_[c].begin());
            }
            delay_.process(ChannelPointers(pieces, count), n);
            for (size_t c = 0; c < count; ++c)
                for (int i = 0; i < n; ++i)
                    pieces[c][i] = dry_[c][static_cast<size_t>(i)] + 0.5f * pieces[c][i];
            done += n;
        }
    }
    void reset() noexcept override { delay_.reset(); }
    int tailFrames() const override { return delay_.latencyFrames(); }
    int latencyFrames() const override { return 0; }

private:
    LatencyProcessor delay_;
    std::vector<std::vector<float>> dry_;
};

/// A one-pole low-pass per channel: its state makes any error in chunking visible.
class SmoothingProcessor final : public EffectProcessor {
public:
    void prepare(double, int channelCount, int) override {
        state_.assign(static_cast<size_t>(std::max(channelCount, 1)), 0.0f);
    }
    void process(ChannelPointers channels, int frameCount) noexcept override {
        const size_t count = std::min(channels.size(), state_.size());
        for (size_t c = 0; c < count; ++c)
            for (int i = 0; i < frameCount; ++i)
                channels[c][i] = state_[c] += 0.1f * (channels[c][i] - state_[c]);
    }
    void reset() noexcept override { std::fill(state_.begin(), state_.end(), 0.0f); }
    int tailFrames() const override { return 0; }
    int latencyFrames() const override { return 0; }

private:
    std::vector<float> state_;
};

} // namespace harlune::testing
