#pragma once

#include "base/HarluneError.h"
#include "dsp/plugins/PluginEffect.h"

#include <atomic>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace harlune::testing {

/// A plug-in without a host. With `mixes`, channel 0 becomes the mean of the first two and
/// channel 1 their half difference (an effect that mixes channels); otherwise every channel is
/// scaled by the "gain" control, which like a real host's control travels lock-free.
class FakePlugin final : public PluginEffect {
public:
    explicit FakePlugin(PluginDescriptor descriptor, bool mixes = false)
        : descriptor_(std::move(descriptor)), mixes_(mixes) {}

    const PluginDescriptor& descriptor() const override { return descriptor_; }
    std::span<const PluginParameter> parameters() const override { return {&parameter_, 1}; }
    std::optional<std::string> stateData() const override {
        return nlohmann::json{{"gain", gain_.load()}}.dump();
    }
    void restoreState(std::string_view data) override {
        const auto json = nlohmann::json::parse(data, nullptr, false);
        if (!json.is_object())
            throw HarluneError::decodeFailed("not a state object");
        if (json.contains("gain"))
            gain_ = json["gain"].get<float>();
    }
    void setParameter(std::string_view symbol, float value) override {
        if (symbol == "gain")
            gain_ = value;
    }
    int tailFrames() const override { return 0; }
    int latencyFrames() const override { return 0; }

    float gain() const { return gain_; }
    int prepares = 0;
    /// Makes `prepare` throw this text for more channels than this.
    int maxChannels = 8;

private:
    void doPrepare(double, int channelCount, int) override {
        ++prepares;
        if (channelCount > maxChannels)
            throw HarluneError::unsupportedFormat(std::to_string(channelCount) + " channels");
    }
    void doProcess(ChannelSpan channels) noexcept override {
        if (mixes_ && channels.channelCount() >= 2) {
            for (int i = 0; i < channels.frameCount(); ++i) {
                const float left = channels.channel(0)[i];
                const float right = channels.channel(1)[i];
                channels.channel(0)[i] = 0.5f * (left + right);
                channels.channel(1)[i] = 0.5f * (left - right);
            }
            return;
        }
        const float gain = gain_.load(std::memory_order_relaxed);
        for (int c = 0; c < channels.channelCount(); ++c)
            for (float& x : channels.samples(c))
                x *= gain;
    }
    void doReset() noexcept override {}

    PluginDescriptor descriptor_;
    bool mixes_;
    PluginParameter parameter_{
        .symbol = "gain", .name = "Gain", .minimum = 0, .maximum = 4, .defaultValue = 1};
    std::atomic<float> gain_{1};
};

/// A loader over a few made-up plug-ins: "urn:scale" and "urn:mix" load, anything else fails.
/// Remembers every instance it made.
struct FakeLoader {
    std::shared_ptr<std::vector<std::shared_ptr<FakePlugin>>> made =
        std::make_shared<std::vector<std::shared_ptr<FakePlugin>>>();

    std::shared_ptr<PluginEffect> operator()(const PluginDescriptor& descriptor) const {
        if (descriptor.id != "urn:scale" && descriptor.id != "urn:mix")
            throw HarluneError::codecUnavailable("not installed");
        made->push_back(std::make_shared<FakePlugin>(descriptor, descriptor.id == "urn:mix"));
        return made->back();
    }
};

} // namespace harlune::testing
