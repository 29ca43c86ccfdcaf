#include "dsp/plugins/Lv2Effect.h"

#include "base/HarluneError.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <lilv/lilv.h>
#include <nlohmann/json.hpp>

namespace harlune {

namespace {

// Until `prepare` names the real rate, the first instance is made at this one.
constexpr double probeSampleRate = 48000;

} // namespace

Lv2Effect::Lv2Effect(std::shared_ptr<Lv2World> world, Lv2PluginLayout layout)
    : world_(std::move(world)), layout_(std::move(layout)),
      values_(std::make_unique<std::atomic<float>[]>(layout_.parameters.size())),
      staging_(layout_.parameters.size()) {
    scaleParameters(probeSampleRate);
    for (size_t i = 0; i < parameters_.size(); ++i)
        values_[i].store(parameters_[i].defaultValue, std::memory_order_relaxed);
    sampleRate_ = probeSampleRate;
    instances_.push_back(makeInstance(64));
}

Lv2Effect::~Lv2Effect() {
    for (Instance& instance : instances_)
        freeInstance(instance);
}

Lv2Effect::Instance Lv2Effect::makeInstance(int maxFrames) {
    Instance instance;
    instance.handle = world_->makeInstance(layout_.descriptor.id, sampleRate_);
    // Some plug-ins free in their cleanup what only activation made, so an instance is always
    // connected and activated before it can be freed.
    connect(instance, maxFrames);
    lilv_instance_activate(instance.handle);
    instance.active = true;
    return instance;
}

void Lv2Effect::freeInstance(Instance& instance) noexcept {
    if (instance.active)
        lilv_instance_deactivate(instance.handle);
    instance.active = false;
    world_->freeInstance(instance.handle);
    instance.handle = nullptr;
}

void Lv2Effect::scaleParameters(double sampleRate) {
    const std::lock_guard lock(writers_);
    parameters_ = layout_.parameters;
    for (size_t i = 0; i < parameters_.size(); ++i) {
        PluginParameter& p = parameters_[i];
        if (layout_.boundsFollowRate[i]) {
            p.minimum = static_cast<float>(p.minimum * sampleRate);
            p.maximum = static_cast<float>(p.maximum * sampleRate);
        }
        p.defaultValue = std::clamp(p.defaultValue, p.minimum, p.maximum);
        // Called before any run or between runs: no reader to keep consistent with.
        values_[i].store(normalised(i, values_[i].load(std::memory_order_relaxed)),
                         std::memory_order_relaxed);
    }
}

void Lv2Effect::doPrepare(double sampleRate, int channelCount, int maxFrames) {
    if (!(sampleRate > 0))
        sampleRate = probeSampleRate;
    const int width = std::min(layout_.audioInputs, layout_.audioOutputs);
    groupWidth_ = std::min(width, channelCount);
    const auto groups = static_cast<size_t>((channelCount + groupWidth_ - 1) / groupWidth_);

    // Instances are bound to their rate: a new rate replaces them all.
    if (sampleRate != sampleRate_) {
        for (Instance& instance : instances_)
            freeInstance(instance);
        instances_.clear();
        sampleRate_ = sampleRate;
        scaleParameters(sampleRate_);
    }
    while (instances_.size() > groups) {
        freeInstance(instances_.back());
        instances_.pop_back();
    }
    while (instances_.size() < groups) {
        instances_.push_back(makeInstance(maxFrames));
    }

    {
        const std::lock_guard lock(writers_);
        for (Instance& instance : instances_) {
            if (instance.active) {
                lilv_instance_deactivate(instance.handle);
                instance.active = false;
            }
            connect(instance, maxFrames);
        }
        appliedSequence_ = sequence_.load(std::memory_order_acquire);
    }

    // A plug-in may report its latency only from a run: run it once on silence (the reset that
    // follows `prepare` clears what this left).
    latency_.store(0, std::memory_order_relaxed);
    if (layout_.latencyPort) {
        Instance& first = instances_.front();
        lilv_instance_activate(first.handle);
        first.active = true;
        lilv_instance_run(first.handle, 1);
        const float reported = first.controls[*layout_.latencyPort];
        latency_.store(std::isfinite(reported) ? std::max(0, static_cast<int>(std::lround(reported))) : 0,
                       std::memory_order_relaxed);
    }
}

void Lv2Effect::connect(Instance& instance, int maxFrames) {
    const auto frames = static_cast<size_t>(maxFrames);
    instance.controls.assign(layout_.ports.size(), 0.0f);
    for (size_t i = 0; i < layout_.controlPorts.size(); ++i)
        instance.controls[layout_.controlPorts[i]] = values_[i].load(std::memory_order_relaxed);
    instance.audioInputs.assign(static_cast<size_t>(layout_.audioInputs), std::vector<float>(frames));
    instance.audioOutputs.assign(static_cast<size_t>(layout_.audioOutputs), std::vector<float>(frames));
    instance.cvBuffers.clear();
    for (const Lv2Port& port : layout_.ports)
        if (port.role == Lv2Port::Role::cvIn || port.role == Lv2Port::Role::cvOut)
            instance.cvBuffers.emplace_back(frames);

    size_t input = 0, output = 0, cv = 0;
    for (const Lv2Port& port : layout_.ports) {
        void* buffer = nullptr;
        switch (port.role) {
        case Lv2Port::Role::audioIn:
            buffer = instance.audioInputs[input++].data();
            break;
        case Lv2Port::Role::audioOut:
            buffer = instance.audioOutputs[output++].data();
            break;
        case Lv2Port::Role::controlIn:
        case Lv2Port::Role::controlOut:
            buffer = &instance.controls[port.index];
            break;
        case Lv2Port::Role::cvIn:
        case Lv2Port::Role::cvOut:
            buffer = instance.cvBuffers[cv++].data();
            break;
        case Lv2Port::Role::unused:
            break; // optional connection: left unconnected
        }
        lilv_instance_connect_port(instance.handle, port.index, buffer);
    }
}

void Lv2Effect::doReset() noexcept {
    for (Instance& instance : instances_) {
        if (instance.active)
            lilv_instance_deactivate(instance.handle);
        lilv_instance_activate(instance.handle);
        instance.active = true;
    }
}

void Lv2Effect::syncControls() noexcept {
    const uint64_t sequence = sequence_.load(std::memory_order_acquire);
    if (sequence == appliedSequence_ || (sequence & 1) != 0)
        return; // nothing new, or a writer is midway: the next run picks it up
    for (size_t i = 0; i < staging_.size(); ++i)
        staging_[i] = values_[i].load(std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (sequence_.load(std::memory_order_relaxed) != sequence)
        return; // changed during the copy: try again next run
    for (Instance& instance : instances_)
        for (size_t i = 0; i < staging_.size(); ++i)
            instance.controls[layout_.controlPorts[i]] = staging_[i];
    appliedSequence_ = sequence;
}

void Lv2Effect::doProcess(ChannelSpan channels) noexcept {
    syncControls();
    const int channelCount = channels.channelCount();
    const auto frames = static_cast<size_t>(channels.frameCount());
    const size_t bytes = frames * sizeof(float);
    for (size_t group = 0; group < instances_.size(); ++group) {
        const int first = static_cast<int>(group) * groupWidth_;
        const int width = std::min(groupWidth_, channelCount - first);
        if (width <= 0)
            break;
        Instance& instance = instances_[group];
        for (size_t input = 0; input < instance.audioInputs.size(); ++input)
            std::memcpy(instance.audioInputs[input].data(),
                        channels.channel(first + static_cast<int>(input) % width), bytes);
        lilv_instance_run(instance.handle, static_cast<uint32_t>(frames));
        for (int output = 0; output < width; ++output)
            std::memcpy(channels.channel(first + output),
                        instance.audioOutputs[static_cast<size_t>(output)].data(), bytes);
    }
    if (layout_.latencyPort && !instances_.empty()) {
        const float reported = instances_.front().controls[*layout_.latencyPort];
        if (std::isfinite(reported))
            latency_.store(std::max(0, static_cast<int>(std::lround(reported))), std::memory_order_relaxed);
    }
}

float Lv2Effect::normalised(size_t parameter, float value) const {
    const PluginParameter& p = parameters_[parameter];
    if (!std::isfinite(value))
        return p.defaultValue;
    value = std::clamp(value, p.minimum, p.maximum);
    if (p.isToggle)
        return value - p.minimum < p.maximum - value ? p.minimum : p.maximum;
    if (p.isInteger)
        value = std::clamp(std::round(value), std::ceil(p.minimum), std::floor(p.maximum));
    return value;
}

void Lv2Effect::store(std::span<const std::pair<size_t, float>> values) {
    if (values.empty())
        return;
    const std::lock_guard lock(writers_);
    sequence_.fetch_add(1, std::memory_order_relaxed); // odd: a change is being written
    std::atomic_thread_fence(std::memory_order_release);
    for (const auto& [index, value] : values)
        values_[index].store(normalised(index, value), std::memory_order_relaxed);
    sequence_.fetch_add(1, std::memory_order_release); // even again: settled
}

void Lv2Effect::setParameter(std::string_view symbol, float value) {
    for (size_t i = 0; i < layout_.parameters.size(); ++i)
        if (layout_.parameters[i].symbol == symbol) {
            const std::pair<size_t, float> change{i, value};
            store({&change, 1});
            return;
        }
}

float Lv2Effect::parameterValue(std::string_view symbol) const {
    for (size_t i = 0; i < layout_.parameters.size(); ++i)
        if (layout_.parameters[i].symbol == symbol)
            return values_[i].load(std::memory_order_relaxed);
    return std::nanf("");
}

std::optional<std::string> Lv2Effect::stateData() const {
    if (parameters_.empty())
        return std::nullopt;
    nlohmann::json state = nlohmann::json::object();
    for (size_t i = 0; i < layout_.parameters.size(); ++i)
        state[layout_.parameters[i].symbol] = values_[i].load(std::memory_order_relaxed);
    return state.dump();
}

void Lv2Effect::restoreState(std::string_view data) {
    const nlohmann::json state = nlohmann::json::parse(data, nullptr, false);
    if (!state.is_object())
        throw HarluneError::unsupportedFormat("the settings of \u201C" + layout_.descriptor.name +
                                              "\u201D aren\u2019t a JSON object of numbers");
    std::vector<std::pair<size_t, float>> changes;
    for (size_t i = 0; i < layout_.parameters.size(); ++i) {
        const auto entry = state.find(layout_.parameters[i].symbol);
        if (entry == state.end())
            continue;
        if (!entry->is_number())
            throw HarluneError::unsupportedFormat("the setting \u201C" + layout_.parameters[i].symbol +
                                                  "\u201D of " + layout_.descriptor.name +
                                                  " isn\u2019t a number");
        changes.emplace_back(i, entry->get<float>());
    }
    store(changes);
}

std::shared_ptr<PluginEffect> instantiateLv2Effect(const std::shared_ptr<Lv2World>& world,
                                                   const PluginDescriptor& descriptor) {
    return std::make_shared<Lv2Effect>(world, world->layout(descriptor.id));
}

} // namespace harlune
