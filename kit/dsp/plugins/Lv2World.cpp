#include "dsp/plugins/Lv2World.h"

#include "base/HarluneError.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <lilv/lilv.h>
#include <lv2/core/lv2.h>
#include <mutex>

namespace harlune {

namespace {

constexpr const char* logarithmicProperty = "http://lv2plug.in/ns/ext/port-props#logarithmic";

std::string quoted(std::string_view text) {
    return "\u201C" + std::string(text) + "\u201D";
}

// Owns one node made by lilv (names, URIs), freed at the end of the scope.
class OwnedNode {
public:
    explicit OwnedNode(LilvNode* node) : node_(node) {}
    ~OwnedNode() { lilv_node_free(node_); }
    OwnedNode(const OwnedNode&) = delete;
    OwnedNode& operator=(const OwnedNode&) = delete;
    const LilvNode* get() const { return node_; }
    std::string text(std::string fallback = {}) const {
        const char* value = node_ ? lilv_node_as_string(node_) : nullptr;
        return value ? std::string(value) : fallback;
    }

private:
    LilvNode* node_;
};

bool lessByName(const PluginDescriptor& a, const PluginDescriptor& b) {
    const auto lower = [](unsigned char c) {
        return std::tolower(c);
    };
    const bool less = std::ranges::lexicographical_compare(a.name, b.name, {}, lower, lower);
    const bool greater = std::ranges::lexicographical_compare(b.name, a.name, {}, lower, lower);
    if (less != greater)
        return less;
    return std::tie(a.name, a.id) < std::tie(b.name, b.id);
}

} // namespace

struct Lv2World::State {
    std::mutex mutex;
    LilvWorld* world = nullptr;
    // Class and property nodes, made once: lilv compares nodes, not strings.
    LilvNode* audioPort = nullptr;
    LilvNode* controlPort = nullptr;
    LilvNode* cvPort = nullptr;
    LilvNode* inputPort = nullptr;
    LilvNode* outputPort = nullptr;
    LilvNode* connectionOptional = nullptr;
    LilvNode* toggled = nullptr;
    LilvNode* integer = nullptr;
    LilvNode* enumeration = nullptr;
    LilvNode* logarithmic = nullptr;
    LilvNode* sampleRate = nullptr;

    ~State() {
        for (LilvNode* node : {audioPort, controlPort, cvPort, inputPort, outputPort, connectionOptional,
                               toggled, integer, enumeration, logarithmic, sampleRate})
            lilv_node_free(node);
        if (world)
            lilv_world_free(world);
    }

    // With the mutex held.
    const LilvPlugin* find(std::string_view uri) {
        const OwnedNode node(lilv_new_uri(world, std::string(uri).c_str()));
        if (!node.get())
            return nullptr;
        return lilv_plugins_get_by_uri(lilv_world_get_all_plugins(world), node.get());
    }

    const LilvPlugin* require(std::string_view uri) {
        const LilvPlugin* plugin = find(uri);
        if (!plugin)
            throw HarluneError::codecUnavailable("the plug-in " + quoted(uri) + " isn\u2019t installed");
        return plugin;
    }

    bool isEffect(const LilvPlugin* plugin) const {
        return lilv_plugin_get_num_ports_of_class(plugin, audioPort, inputPort, nullptr) > 0 &&
               lilv_plugin_get_num_ports_of_class(plugin, audioPort, outputPort, nullptr) > 0;
    }
};

std::shared_ptr<Lv2World> Lv2World::shared() {
    // The one process-wide world (see the class comment); made on first use, thread-safely.
    static const auto world = std::make_shared<Lv2World>();
    return world;
}

Lv2World::Lv2World(std::optional<std::string> searchPath) : state_(std::make_unique<State>()) {
    State& s = *state_;
    s.world = lilv_world_new();
    if (!s.world)
        throw HarluneError::codecUnavailable("the LV2 plug-in host couldn\u2019t start");
    if (searchPath) {
        const OwnedNode path(lilv_new_string(s.world, searchPath->c_str()));
        lilv_world_set_option(s.world, LILV_OPTION_LV2_PATH, path.get());
    }
    lilv_world_load_all(s.world);
    s.audioPort = lilv_new_uri(s.world, LV2_CORE__AudioPort);
    s.controlPort = lilv_new_uri(s.world, LV2_CORE__ControlPort);
    s.cvPort = lilv_new_uri(s.world, LV2_CORE__CVPort);
    s.inputPort = lilv_new_uri(s.world, LV2_CORE__InputPort);
    s.outputPort = lilv_new_uri(s.world, LV2_CORE__OutputPort);
    s.connectionOptional = lilv_new_uri(s.world, LV2_CORE__connectionOptional);
    s.toggled = lilv_new_uri(s.world, LV2_CORE__toggled);
    s.integer = lilv_new_uri(s.world, LV2_CORE__integer);
    s.enumeration = lilv_new_uri(s.world, LV2_CORE__enumeration);
    s.logarithmic = lilv_new_uri(s.world, logarithmicProperty);
    s.sampleRate = lilv_new_uri(s.world, LV2_CORE__sampleRate);
}

Lv2World::~Lv2World() = default;

std::vector<PluginDescriptor> Lv2World::installedPlugins() {
    State& s = *state_;
    const std::lock_guard lock(s.mutex);
    std::vector<PluginDescriptor> found;
    const LilvPlugins* plugins = lilv_world_get_all_plugins(s.world);
    LILV_FOREACH(plugins, i, plugins) {
        const LilvPlugin* plugin = lilv_plugins_get(plugins, i);
        // A bundle whose data is missing or broken fails verification and is left out.
        if (!lilv_plugin_verify(plugin) || !s.isEffect(plugin))
            continue;
        const char* uri = lilv_node_as_uri(lilv_plugin_get_uri(plugin));
        const OwnedNode name(lilv_plugin_get_name(plugin));
        found.push_back({uri, name.text(uri)});
    }
    std::ranges::sort(found, lessByName);
    return found;
}

Lv2PluginLayout Lv2World::layout(std::string_view uri) {
    State& s = *state_;
    const std::lock_guard lock(s.mutex);
    const LilvPlugin* plugin = s.require(uri);
    Lv2PluginLayout layout;
    const OwnedNode name(lilv_plugin_get_name(plugin));
    layout.descriptor = {std::string(uri), name.text(std::string(uri))};
    const std::string shownName = quoted(layout.descriptor.name);

    // This host offers no features: every plug-in that needs one (a worker, URID mapping,
    // state) is refused here rather than crashing at instantiation.
    if (LilvNodes* required = lilv_plugin_get_required_features(plugin)) {
        std::string list;
        LILV_FOREACH(nodes, i, required)
        list += (list.empty() ? "" : ", ") + std::string(lilv_node_as_string(lilv_nodes_get(required, i)));
        lilv_nodes_free(required);
        if (!list.empty())
            throw HarluneError::unsupportedFormat(
                "the plug-in " + shownName + " needs host features this editor doesn\u2019t offer: " + list);
    }

    const uint32_t portCount = lilv_plugin_get_num_ports(plugin);
    std::vector<float> minimums(portCount), maximums(portCount), defaults(portCount);
    lilv_plugin_get_port_ranges_float(plugin, minimums.data(), maximums.data(), defaults.data());
    std::optional<uint32_t> latencyPort;
    if (lilv_plugin_has_latency(plugin))
        latencyPort = lilv_plugin_get_latency_port_index(plugin);

    for (uint32_t index = 0; index < portCount; ++index) {
        const LilvPort* port = lilv_plugin_get_port_by_index(plugin, index);
        const bool isInput = lilv_port_is_a(plugin, port, s.inputPort);
        const bool isOutput = lilv_port_is_a(plugin, port, s.outputPort);
        const char* symbol = lilv_node_as_string(lilv_port_get_symbol(plugin, port));
        Lv2Port entry{index, Lv2Port::Role::unused};
        if (isInput == isOutput) {
            // Neither or both: nothing sensible to connect.
        } else if (lilv_port_is_a(plugin, port, s.audioPort)) {
            entry.role = isInput ? Lv2Port::Role::audioIn : Lv2Port::Role::audioOut;
            ++(isInput ? layout.audioInputs : layout.audioOutputs);
        } else if (lilv_port_is_a(plugin, port, s.controlPort)) {
            entry.role = isInput ? Lv2Port::Role::controlIn : Lv2Port::Role::controlOut;
        } else if (lilv_port_is_a(plugin, port, s.cvPort)) {
            entry.role = isInput ? Lv2Port::Role::cvIn : Lv2Port::Role::cvOut;
        }
        if (entry.role == Lv2Port::Role::unused &&
            !lilv_port_has_property(plugin, port, s.connectionOptional))
            throw HarluneError::unsupportedFormat(
                "the plug-in " + shownName +
                " has a port this editor can\u2019t feed: " + (symbol ? symbol : "?"));
        if (entry.role == Lv2Port::Role::controlIn) {
            PluginParameter parameter;
            parameter.symbol = symbol ? symbol : "";
            const OwnedNode portName(lilv_port_get_name(plugin, port));
            parameter.name = portName.text(parameter.symbol);
            parameter.isToggle = lilv_port_has_property(plugin, port, s.toggled);
            parameter.isInteger = lilv_port_has_property(plugin, port, s.integer) ||
                                  lilv_port_has_property(plugin, port, s.enumeration);
            parameter.isLogarithmic = lilv_port_has_property(plugin, port, s.logarithmic);
            // Missing bounds are NaN: fall back to 0...1, as LV2 hosts commonly do.
            const float low = std::isfinite(minimums[index]) ? minimums[index] : 0.0f;
            const float high = std::isfinite(maximums[index]) ? maximums[index] : std::max(low, 1.0f);
            parameter.minimum = std::min(low, high);
            parameter.maximum = std::max(low, high);
            // Clamped by the effect, once bounds relative to the rate are scaled.
            parameter.defaultValue = std::isfinite(defaults[index]) ? defaults[index] : parameter.minimum;
            layout.parameters.push_back(std::move(parameter));
            layout.boundsFollowRate.push_back(lilv_port_has_property(plugin, port, s.sampleRate));
            layout.controlPorts.push_back(index);
        }
        if (entry.role == Lv2Port::Role::controlOut && latencyPort == index)
            layout.latencyPort = index;
        layout.ports.push_back(entry);
    }
    if (layout.audioInputs == 0 || layout.audioOutputs == 0)
        throw HarluneError::unsupportedFormat("the plug-in " + shownName +
                                              " is no effect: it needs an audio input and an audio output");
    return layout;
}

LilvInstanceImpl* Lv2World::makeInstance(std::string_view uri, double sampleRate) {
    State& s = *state_;
    const std::lock_guard lock(s.mutex);
    const LilvPlugin* plugin = s.require(uri);
    LilvInstance* instance = lilv_plugin_instantiate(plugin, sampleRate, nullptr);
    if (!instance) {
        const OwnedNode name(lilv_plugin_get_name(plugin));
        throw HarluneError::codecUnavailable("the plug-in " + quoted(name.text(std::string(uri))) +
                                             " couldn\u2019t be loaded at " +
                                             std::to_string(std::lround(sampleRate)) + " Hz");
    }
    return instance;
}

void Lv2World::freeInstance(LilvInstanceImpl* instance) noexcept {
    if (!instance)
        return;
    // Freeing drops the world's reference to the plug-in's library: a world call like the rest.
    const std::lock_guard lock(state_->mutex);
    lilv_instance_free(instance);
}

} // namespace harlune
