#pragma once

#include "dsp/plugins/PluginDescriptor.h"
#include "dsp/plugins/PluginEffect.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct LilvInstanceImpl;

namespace harlune {

/// What the host does with one port of a plug-in.
struct Lv2Port {
    enum class Role { audioIn, audioOut, controlIn, controlOut, cvIn, cvOut, unused };
    uint32_t index = 0;
    Role role = Role::unused;
};

/// A plug-in as an `Lv2Effect` runs it: its ports, and its control inputs as parameters.
struct Lv2PluginLayout {
    PluginDescriptor descriptor;
    std::vector<Lv2Port> ports; ///< every port, in index order
    /// The control inputs, in port order; `controlPorts[i]` is the index of `parameters[i]`.
    std::vector<PluginParameter> parameters;
    std::vector<uint32_t> controlPorts;
    /// Parallel to `parameters`: bounds given as fractions of the sample rate (the value itself
    /// is in Hz); `parameters` hold them unscaled.
    std::vector<bool> boundsFollowRate;
    std::optional<uint32_t> latencyPort; ///< a control output that reports the latency in frames
    int audioInputs = 0;
    int audioOutputs = 0;
};

/// One set of installed LV2 plug-ins and the loaded bundles behind them (a lilv world).
///
/// A world is heavy: making one parses every bundle's Turtle on the search path, and discovery
/// is a process-wide fact. So the program has one shared world, made on first use; each
/// `Lv2Effect` keeps it alive while it runs. lilv is not thread-safe, and plug-ins are loaded
/// from background jobs while the main thread lists them, so every call into the world (also
/// making and freeing instances, which load and unload the plug-in's library) goes through the
/// world's one mutex. Nothing here runs on the audio thread.
class Lv2World {
public:
    /// The standard LV2 search path, or `LV2_PATH` when it is set.
    static std::shared_ptr<Lv2World> shared();

    /// A world over the given search path (folders separated by ':'), or the standard one.
    explicit Lv2World(std::optional<std::string> searchPath = std::nullopt);
    ~Lv2World();
    Lv2World(const Lv2World&) = delete;
    Lv2World& operator=(const Lv2World&) = delete;

    /// The effect plug-ins (at least one audio input and one audio output), sorted by name.
    std::vector<PluginDescriptor> installedPlugins();

    /// The plug-in's ports and parameters. Throws `HarluneError` when it is not installed or
    /// asks for more than this host offers (host features, ports it cannot feed).
    Lv2PluginLayout layout(std::string_view uri);

    /// A new instance at `sampleRate` Hz; throws `HarluneError` when the plug-in can't be made.
    LilvInstanceImpl* makeInstance(std::string_view uri, double sampleRate);
    /// Frees an instance from `makeInstance` (which may unload the plug-in's library).
    void freeInstance(LilvInstanceImpl* instance) noexcept;

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// A new, unprepared instance of the plug-in in `world`. Throws `HarluneError` as
/// `PluginEffect::instantiate` does.
std::shared_ptr<PluginEffect> instantiateLv2Effect(const std::shared_ptr<Lv2World>& world,
                                                   const PluginDescriptor& descriptor);

} // namespace harlune
