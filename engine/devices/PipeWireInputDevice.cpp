#include "engine/devices/PipeWireInputDevice.h"

#include "engine/Realtime.h"
#include "engine/devices/PipeWireLoopLock.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <pipewire/extensions/metadata.h>
#include <pipewire/impl-module.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/format-utils.h>
#include <spa/pod/iter.h>
#include <spa/utils/json.h>
#include <spa/utils/result.h>
#include <span>

namespace harlune {

namespace {

constexpr int waitSeconds = 5;
constexpr int maxChannels = 64;

/// The "name" of a metadata value such as {"name":"alsa_input.pci"}.
std::string nameInJSON(const char* value) {
    if (!value)
        return {};
    spa_json it[2];
    spa_json_init(&it[0], value, strlen(value));
    if (spa_json_enter_object(&it[0], &it[1]) <= 0)
        return {};
    char key[64];
    while (spa_json_get_string(&it[1], key, sizeof key) > 0) {
        char text[512];
        if (strcmp(key, "name") == 0) {
            if (spa_json_get_string(&it[1], text, sizeof text) > 0)
                return text;
            return {};
        }
        const char* skipped = nullptr;
        if (spa_json_next(&it[1], &skipped) <= 0)
            break;
    }
    return {};
}

/// The values an integer property of a format offers (the preferred one first); empty when the
/// format lacks it.
std::span<const int32_t> intValues(const spa_pod* format, uint32_t key) {
    const spa_pod_prop* prop = spa_pod_find_prop(format, nullptr, key);
    if (!prop)
        return {};
    uint32_t count = 0;
    uint32_t choice = 0;
    const spa_pod* values = spa_pod_get_values(&prop->value, &count, &choice);
    if (!values || values->type != SPA_TYPE_Int)
        return {};
    return {static_cast<const int32_t*>(SPA_POD_BODY_CONST(values)), count};
}

/// The largest value of an integer property over all the choices it offers; 0 when absent.
int largestInt(const spa_pod* format, uint32_t key) {
    const auto values = intValues(format, key);
    return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

/// The preferred (first) value of an integer property; 0 when absent.
int preferredInt(const spa_pod* format, uint32_t key) {
    const auto values = intValues(format, key);
    return values.empty() ? 0 : values.front();
}

/// A string as a quoted SPA JSON value.
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

} // namespace

/// One source node of the registry, bound so that its formats (and with them its channel count,
/// which the node's properties lack) arrive as param events. Loop thread, under the loop lock.
struct SourceNode {
    PipeWireInputDevice::Impl* owner = nullptr;
    uint32_t id = 0;
    pw_proxy* proxy = nullptr;
    spa_hook listener{};
    InputDevice device;
    int propertyChannels = 0; ///< audio.channels of the properties, where a node has it
    int formatChannels = 0;   ///< the most any raw EnumFormat offers, 0 before the first
    int formatRate = 0;

    SourceNode() = default;
    SourceNode(const SourceNode&) = delete;
    SourceNode& operator=(const SourceNode&) = delete;
    ~SourceNode() {
        if (proxy) {
            spa_hook_remove(&listener);
            pw_proxy_destroy(proxy);
        }
    }

    /// The channel count to list: the formats' when known, else the properties', else stereo.
    void settle() {
        const int channels = formatChannels > 0     ? formatChannels
                             : propertyChannels > 0 ? propertyChannels
                                                    : 2;
        device.channelCount = std::clamp(channels, 1, maxChannels);
        device.sampleRate = formatRate > 0 ? formatRate : 0;
    }

    static void onParam(void* data, int, uint32_t id, uint32_t index, uint32_t, const spa_pod* param);
};

struct PipeWireInputDevice::Impl {
    PipeWireInputDevice& owner;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    spa_hook registryListener{};
    spa_hook coreListener{};
    pw_metadata* metadata = nullptr;
    spa_hook metadataListener{};

    // Loop thread and main thread, under the loop lock.
    std::map<uint32_t, std::unique_ptr<SourceNode>> nodes;
    std::string defaultSourceName;
    int syncSeq = 0;
    bool synced = false;
    bool listed = false;    ///< the first listing is done: changes from now on are news
    std::string openTarget; ///< node.name of the open stream's source
    int openChannels = 0;
    /// The loopback from the open source to the default sink. It ends itself when the source goes
    /// (its capture side does not reconnect), which its destroy event tells.
    pw_impl_module* monitor = nullptr;
    spa_hook monitorListener{};

    pw_stream* stream = nullptr;
    spa_hook streamListener{};
    std::optional<CaptureFormat> format;
    std::string streamError;
    bool streamFailed = false;

    // The sink, read on the real-time thread.
    std::atomic<CaptureSink*> sink{nullptr};
    const float* planes[maxChannels] = {};

    explicit Impl(PipeWireInputDevice& device) : owner(device) {}

    static void onGlobal(void* data, uint32_t id, uint32_t, const char* type, uint32_t,
                         const spa_dict* props) {
        auto* self = static_cast<Impl*>(data);
        if (!props)
            return;
        if (strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
            const char* mediaClass = spa_dict_lookup(props, PW_KEY_MEDIA_CLASS);
            if (!mediaClass ||
                (strcmp(mediaClass, "Audio/Source") != 0 && strcmp(mediaClass, "Audio/Source/Virtual") != 0))
                return;
            auto node = std::make_unique<SourceNode>();
            node->owner = self;
            node->id = id;
            node->device.id = id;
            if (const char* name = spa_dict_lookup(props, PW_KEY_NODE_NAME))
                node->device.uid = name;
            const char* description = spa_dict_lookup(props, PW_KEY_NODE_DESCRIPTION);
            node->device.name = description ? description : node->device.uid;
            if (const char* channels = spa_dict_lookup(props, PW_KEY_AUDIO_CHANNELS))
                node->propertyChannels = atoi(channels);
            node->settle();
            node->proxy = static_cast<pw_proxy*>(
                pw_registry_bind(self->registry, id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0));
            if (node->proxy) {
                static const pw_node_events nodeEvents = [] {
                    pw_node_events e{};
                    e.version = PW_VERSION_NODE_EVENTS;
                    e.param = &SourceNode::onParam;
                    return e;
                }();
                pw_proxy_add_object_listener(node->proxy, &node->listener, &nodeEvents, node.get());
                uint32_t wanted[] = {SPA_PARAM_EnumFormat};
                pw_node_subscribe_params(reinterpret_cast<pw_node*>(node->proxy), wanted, 1);
            }
            self->nodes[id] = std::move(node);
            self->changed();
        } else if (strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0 && !self->metadata) {
            const char* name = spa_dict_lookup(props, PW_KEY_METADATA_NAME);
            if (!name || strcmp(name, "default") != 0)
                return;
            self->metadata = static_cast<pw_metadata*>(
                pw_registry_bind(self->registry, id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA, 0));
            static const pw_metadata_events events = [] {
                pw_metadata_events e{};
                e.version = PW_VERSION_METADATA_EVENTS;
                e.property = &Impl::onProperty;
                return e;
            }();
            if (self->metadata)
                pw_metadata_add_listener(self->metadata, &self->metadataListener, &events, self);
        }
    }

    static void onGlobalRemove(void* data, uint32_t id) {
        auto* self = static_cast<Impl*>(data);
        if (self->nodes.erase(id) > 0)
            self->changed();
    }

    static int onProperty(void* data, uint32_t, const char* key, const char*, const char* value) {
        auto* self = static_cast<Impl*>(data);
        if (key && strcmp(key, "default.audio.source") == 0) {
            self->defaultSourceName = nameInJSON(value);
            self->changed();
        }
        return 0;
    }

    /// Loop thread: the list or the default changed.
    void changed() {
        if (listed)
            owner.notifyDevicesChanged();
    }

    static void onDone(void* data, uint32_t id, int seq) {
        auto* self = static_cast<Impl*>(data);
        if (id == PW_ID_CORE && seq == self->syncSeq) {
            self->synced = true;
            pw_thread_loop_signal(self->loop, false);
        }
    }

    static void onStreamState(void* data, pw_stream_state, pw_stream_state state, const char* error) {
        auto* self = static_cast<Impl*>(data);
        if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) {
            const bool wasRunning = self->format.has_value() && !self->streamFailed;
            self->streamFailed = true;
            self->streamError = error ? error : "the input stream ended";
            pw_thread_loop_signal(self->loop, false);
            if (wasRunning)
                self->owner.notifyLoss(self->streamError);
        }
    }

    static void onParamChanged(void* data, uint32_t id, const spa_pod* param) {
        auto* self = static_cast<Impl*>(data);
        if (!param || id != SPA_PARAM_Format)
            return;
        spa_audio_info_raw info{};
        if (spa_format_audio_raw_parse(param, &info) < 0)
            return;
        self->format = CaptureFormat{static_cast<double>(info.rate), static_cast<int>(info.channels)};
        pw_thread_loop_signal(self->loop, false);
    }

    static void onProcess(void* data) noexcept HARLUNE_NONBLOCKING {
        auto* self = static_cast<Impl*>(data);
        pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream);
        if (!buffer)
            return;
        spa_buffer* spa = buffer->buffer;
        CaptureSink* sink = self->sink.load(std::memory_order_acquire);
        const auto planeCount = std::min<uint32_t>(spa->n_datas, maxChannels);
        if (sink && planeCount > 0 && spa->datas[0].chunk) {
            const auto frames = static_cast<int>(spa->datas[0].chunk->size / sizeof(float));
            bool ok = frames > 0;
            for (uint32_t c = 0; c < planeCount && ok; ++c) {
                ok = spa->datas[c].data != nullptr;
                if (ok)
                    self->planes[c] = reinterpret_cast<const float*>(
                        static_cast<const uint8_t*>(spa->datas[c].data) + spa->datas[c].chunk->offset);
            }
            if (ok)
                sink->capture(frames, std::span<const float* const>(self->planes, planeCount));
        }
        pw_stream_queue_buffer(self->stream, buffer);
    }

    /// Waits (holding the loop lock) until `done` or the timeout; false on timeout.
    template <class Done> bool waitFor(Done done) {
        timespec deadline{};
        pw_thread_loop_get_time(loop, &deadline, static_cast<int64_t>(waitSeconds) * SPA_NSEC_PER_SEC);
        while (!done())
            if (pw_thread_loop_timed_wait_full(loop, &deadline) != 0)
                return done();
        return true;
    }

    void sync() {
        synced = false;
        syncSeq = pw_core_sync(core, PW_ID_CORE, syncSeq);
        waitFor([this] { return synced; });
    }

    void unloadMonitor() {
        if (!monitor)
            return;
        pw_impl_module* module = monitor;
        forgetMonitor(this);
        pw_impl_module_destroy(module);
    }

    static void forgetMonitor(void* data) {
        auto* self = static_cast<Impl*>(data);
        if (!self->monitor)
            return;
        spa_hook_remove(&self->monitorListener);
        self->monitor = nullptr;
    }

    void destroyStream() {
        unloadMonitor();
        if (!stream)
            return;
        sink.store(nullptr, std::memory_order_release);
        spa_hook_remove(&streamListener);
        pw_stream_destroy(stream);
        stream = nullptr;
        format.reset();
    }
};

void SourceNode::onParam(void* data, int, uint32_t id, uint32_t index, uint32_t, const spa_pod* param) {
    auto* self = static_cast<SourceNode*>(data);
    if (id != SPA_PARAM_EnumFormat || !param)
        return;
    uint32_t mediaType = 0;
    uint32_t mediaSubtype = 0;
    if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_audio ||
        mediaSubtype != SPA_MEDIA_SUBTYPE_raw)
        return;
    const InputDevice before = self->device;
    if (index == 0) { // a new round of the node's formats
        self->formatChannels = 0;
        self->formatRate = 0;
    }
    self->formatChannels = std::max(self->formatChannels, largestInt(param, SPA_FORMAT_AUDIO_channels));
    if (self->formatRate == 0)
        self->formatRate = preferredInt(param, SPA_FORMAT_AUDIO_rate);
    self->settle();
    if (!(self->device == before))
        self->owner->changed();
}

PipeWireInputDevice::PipeWireInputDevice(PostToMainThread postToMainThread)
    : AudioInputDevice(std::move(postToMainThread)), impl_(std::make_unique<Impl>(*this)) {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
    Impl& d = *impl_;
    d.loop = pw_thread_loop_new("harlune-input", nullptr);
    if (!d.loop)
        throw InputDeviceError("PipeWire could not make its loop");
    d.context = pw_context_new(pw_thread_loop_get_loop(d.loop), nullptr, 0);
    if (!d.context || pw_thread_loop_start(d.loop) != 0)
        throw InputDeviceError("PipeWire could not start");
    PipeWireLoopLock lock(d.loop);
    d.core = pw_context_connect(d.context, nullptr, 0);
    if (!d.core)
        throw InputDeviceError("no PipeWire server answers");
    static const pw_core_events coreEvents = [] {
        pw_core_events events{};
        events.version = PW_VERSION_CORE_EVENTS;
        events.done = &Impl::onDone;
        return events;
    }();
    pw_core_add_listener(d.core, &d.coreListener, &coreEvents, &d);
    d.registry = pw_core_get_registry(d.core, PW_VERSION_REGISTRY, 0);
    static const pw_registry_events registryEvents = [] {
        pw_registry_events events{};
        events.version = PW_VERSION_REGISTRY_EVENTS;
        events.global = &Impl::onGlobal;
        events.global_remove = &Impl::onGlobalRemove;
        return events;
    }();
    pw_registry_add_listener(d.registry, &d.registryListener, &registryEvents, &d);
    d.sync();
    d.sync(); // the metadata's properties and the nodes' formats arrive after their binding
    d.listed = true;
}

PipeWireInputDevice::~PipeWireInputDevice() {
    Impl& d = *impl_;
    if (d.loop) {
        {
            PipeWireLoopLock lock(d.loop);
            d.destroyStream();
            d.nodes.clear();
            if (d.metadata) {
                spa_hook_remove(&d.metadataListener);
                pw_proxy_destroy(reinterpret_cast<pw_proxy*>(d.metadata));
            }
            if (d.registry) {
                spa_hook_remove(&d.registryListener);
                pw_proxy_destroy(reinterpret_cast<pw_proxy*>(d.registry));
            }
            if (d.core) {
                spa_hook_remove(&d.coreListener);
                pw_core_disconnect(d.core);
            }
        }
        pw_thread_loop_stop(d.loop);
    }
    if (d.context)
        pw_context_destroy(d.context);
    if (d.loop)
        pw_thread_loop_destroy(d.loop);
}

std::vector<InputDevice> PipeWireInputDevice::inputDevices() {
    Impl& d = *impl_;
    PipeWireLoopLock lock(d.loop);
    d.sync();
    d.sync(); // the formats of a node that just appeared answer its binding
    std::vector<InputDevice> devices;
    for (const auto& [id, node] : d.nodes)
        devices.push_back(node->device);
    return devices;
}

std::optional<uint32_t> PipeWireInputDevice::defaultInputDevice() {
    Impl& d = *impl_;
    PipeWireLoopLock lock(d.loop);
    for (const auto& [id, node] : d.nodes)
        if (node->device.uid == d.defaultSourceName)
            return id;
    return std::nullopt;
}

CaptureFormat PipeWireInputDevice::open(std::optional<uint32_t> deviceID) {
    Impl& d = *impl_;
    PipeWireLoopLock lock(d.loop);
    d.destroyStream();
    d.streamFailed = false;
    d.streamError.clear();
    d.sync();
    int channels = 2;
    d.openTarget = d.defaultSourceName;
    pw_properties* props =
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE,
                          "Production", PW_KEY_NODE_NAME, "harlune", PW_KEY_APP_NAME, "Harlune", nullptr);
    if (deviceID) {
        const auto it = d.nodes.find(*deviceID);
        if (it == d.nodes.end()) {
            pw_properties_free(props);
            throw InputDeviceError("the input device is gone");
        }
        channels = it->second->device.channelCount;
        d.openTarget = it->second->device.uid;
        pw_properties_set(props, PW_KEY_TARGET_OBJECT, d.openTarget.c_str());
    }
    d.stream = pw_stream_new(d.core, "Harlune recording", props);
    if (!d.stream)
        throw InputDeviceError("PipeWire refused the input stream");
    static const pw_stream_events events = [] {
        pw_stream_events e{};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.state_changed = &Impl::onStreamState;
        e.param_changed = &Impl::onParamChanged;
        e.process = &Impl::onProcess;
        return e;
    }();
    pw_stream_add_listener(d.stream, &d.streamListener, &events, &d);
    uint8_t buffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
    spa_audio_info_raw raw{};
    raw.format = SPA_AUDIO_FORMAT_F32P;
    raw.channels = static_cast<uint32_t>(channels);
    const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &raw)};
    const auto flags = static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                                    PW_STREAM_FLAG_RT_PROCESS);
    if (pw_stream_connect(d.stream, PW_DIRECTION_INPUT, PW_ID_ANY, flags, params, 1) < 0) {
        d.destroyStream();
        throw InputDeviceError("PipeWire refused the input stream");
    }
    if (!d.waitFor([&d] { return d.format.has_value() || d.streamFailed; }) || d.streamFailed) {
        const std::string reason =
            d.streamError.empty() ? "the input device isn\u2019t delivering audio" : d.streamError;
        d.destroyStream();
        throw InputDeviceError(reason);
    }
    d.openChannels = d.format->channelCount;
    return *d.format;
}

void PipeWireInputDevice::start(CaptureSink& sink) {
    impl_->sink.store(&sink, std::memory_order_release);
}

void PipeWireInputDevice::close() {
    Impl& d = *impl_;
    PipeWireLoopLock lock(d.loop);
    d.destroyStream();
}

bool PipeWireInputDevice::setMonitoring(bool on) {
    Impl& d = *impl_;
    PipeWireLoopLock lock(d.loop);
    if (!on || !d.stream || d.streamFailed) {
        d.unloadMonitor();
        return false;
    }
    if (d.monitor)
        return true;
    // The loopback's capture side follows the open source and stays with it; its playback side
    // has no target, so the session manager joins it to the default sink.
    // A mono or stereo input says so, so that a mono one reaches both speakers.
    const int channels = std::max(d.openChannels, 1);
    const char* positions = channels == 1   ? " audio.position = [ MONO ]"
                            : channels == 2 ? " audio.position = [ FL FR ]"
                                            : "";
    std::string arguments =
        "{ node.description = \"Harlune monitor\" audio.channels = " + std::to_string(channels) + positions +
        " capture.props = { node.name = \"harlune.monitor.capture\" node.dont-reconnect = true";
    if (!d.openTarget.empty())
        arguments += " target.object = " + quoted(d.openTarget);
    arguments += " } playback.props = { node.name = \"harlune.monitor\" media.role = \"Production\" } }";
    d.monitor = pw_context_load_module(d.context, "libpipewire-module-loopback", arguments.c_str(), nullptr);
    if (!d.monitor)
        return false;
    static const pw_impl_module_events events = [] {
        pw_impl_module_events e{};
        e.version = PW_VERSION_IMPL_MODULE_EVENTS;
        e.destroy = &Impl::forgetMonitor;
        return e;
    }();
    pw_impl_module_add_listener(d.monitor, &d.monitorListener, &events, &d);
    return true;
}

bool PipeWireInputDevice::isRunning() const {
    return impl_->sink.load() != nullptr;
}

} // namespace harlune
