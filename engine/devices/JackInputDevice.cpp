#include "engine/devices/JackInputDevice.h"

#include "engine/Realtime.h"
#include "engine/devices/JackQuiet.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <jack/jack.h>

namespace harlune {

namespace {

constexpr int maxChannels = 64;
constexpr int monitorChannels = 2;
constexpr const char* clientName = "harlune-input";

std::string statusText(jack_status_t status) {
    if ((status & JackServerFailed) != 0)
        return "no JACK server is running";
    if ((status & JackVersionError) != 0)
        return "the JACK server speaks another protocol version";
    return "the JACK server refused the client";
}

/// The server's physical ports in order: capture ports (outputs, from JACK's side) or playback ports.
std::vector<std::string> physicalPorts(jack_client_t* client, unsigned long direction) {
    std::vector<std::string> names;
    const char** ports =
        jack_get_ports(client, nullptr, JACK_DEFAULT_AUDIO_TYPE, JackPortIsPhysical | direction);
    for (int p = 0; ports != nullptr && ports[p] != nullptr && p < maxChannels; ++p)
        names.emplace_back(ports[p]);
    if (ports != nullptr)
        jack_free(ports);
    return names;
}

} // namespace

struct JackInputDevice::Impl {
    JackInputDevice& owner;
    jack_client_t* client = nullptr; // main thread
    bool active = false;
    int channels = 0;
    std::array<jack_port_t*, maxChannels> ports{};
    // The first two inputs again, for monitoring: silent unless `monitoring`, and joined to the
    // speakers only then.
    int monitors = 0;
    std::array<jack_port_t*, monitorChannels> monitorPorts{};
    std::vector<std::pair<std::string, std::string>> monitorLinks; // made by `setMonitoring`
    std::atomic<bool> monitoring{false};

    // Set by JACK's thread when the server went away; the client is then only fit for closing.
    std::atomic<bool> serverGone{false};
    // Read by the process callback; the ports and the count above are fixed while it runs.
    std::atomic<CaptureSink*> sink{nullptr};
    std::array<const float*, maxChannels> planes{};

    explicit Impl(JackInputDevice& device) : owner(device) {}

    // JACK's real-time thread: the port buffers are the planes.
    static int process(jack_nframes_t frameCount, void* data) noexcept HARLUNE_NONBLOCKING {
        auto& self = *static_cast<Impl*>(data);
        for (int c = 0; c < self.channels; ++c)
            self.planes[static_cast<size_t>(c)] = static_cast<const float*>(
                jack_port_get_buffer(self.ports[static_cast<size_t>(c)], frameCount));
        const bool monitored = self.monitoring.load(std::memory_order_relaxed);
        for (int m = 0; m < self.monitors; ++m) {
            auto* out = static_cast<float*>(
                jack_port_get_buffer(self.monitorPorts[static_cast<size_t>(m)], frameCount));
            if (monitored)
                std::copy_n(self.planes[static_cast<size_t>(m)], frameCount, out);
            else
                std::fill_n(out, frameCount, 0.0f);
        }
        CaptureSink* target = self.sink.load(std::memory_order_acquire);
        if (target == nullptr)
            return 0;
        target->capture(
            static_cast<int>(frameCount),
            std::span<const float* const>(self.planes.data(), static_cast<size_t>(self.channels)));
        return 0;
    }

    // JACK's thread, once the server died or threw the client out; no callback runs any more.
    static void shutdown(jack_status_t, const char* reason, void* data) {
        auto& self = *static_cast<Impl*>(data);
        self.serverGone = true;
        if (self.sink.exchange(nullptr) != nullptr)
            self.owner.notifyLoss(std::string("the JACK server went away") +
                                  (reason != nullptr && *reason != 0 ? std::string(": ") + reason : ""));
    }

    /// A live client, opening a new one when there is none or its server died.
    void connect() {
        if (client != nullptr && !serverGone.load())
            return;
        disconnect();
        quietJack();
        jack_status_t status{};
        client = jack_client_open(clientName, JackNoStartServer, &status);
        if (client == nullptr)
            throw InputDeviceError(statusText(status));
        serverGone = false;
        jack_set_process_callback(client, &Impl::process, this);
        jack_on_info_shutdown(client, &Impl::shutdown, this);
    }

    void deactivate() {
        sink.store(nullptr, std::memory_order_release);
        monitoring = false;
        monitorLinks.clear(); // the ports' connections end with them
        if (client == nullptr)
            return;
        if (active && !serverGone.load())
            jack_deactivate(client); // returns once no process callback runs
        active = false;
        if (!serverGone.load()) {
            for (int c = 0; c < channels; ++c)
                jack_port_unregister(client, ports[static_cast<size_t>(c)]);
            for (int m = 0; m < monitors; ++m)
                jack_port_unregister(client, monitorPorts[static_cast<size_t>(m)]);
        }
        ports.fill(nullptr);
        monitorPorts.fill(nullptr);
        channels = 0;
        monitors = 0;
    }

    void unlinkMonitor() {
        monitoring = false;
        if (client != nullptr && !serverGone.load())
            for (const auto& [from, to] : monitorLinks)
                jack_disconnect(client, from.c_str(), to.c_str());
        monitorLinks.clear();
    }

    void disconnect() {
        deactivate();
        if (client != nullptr)
            jack_client_close(client);
        client = nullptr;
    }
};

JackInputDevice::JackInputDevice(PostToMainThread postToMainThread)
    : AudioInputDevice(std::move(postToMainThread)), impl_(std::make_unique<Impl>(*this)) {
    impl_->connect();
}

JackInputDevice::~JackInputDevice() {
    impl_->disconnect();
}

std::vector<InputDevice> JackInputDevice::inputDevices() {
    impl_->connect();
    const auto physical = static_cast<int>(physicalPorts(impl_->client, JackPortIsOutput).size());
    InputDevice device;
    device.id = systemID;
    device.uid = "system";
    device.name = "JACK capture";
    device.channelCount = physical > 0 ? physical : 2;
    device.sampleRate = jack_get_sample_rate(impl_->client);
    return {device};
}

CaptureFormat JackInputDevice::open(std::optional<uint32_t> deviceID) {
    Impl& d = *impl_;
    d.deactivate();
    if (deviceID && *deviceID != systemID)
        throw InputDeviceError("no such input device");
    d.connect();
    const std::vector<std::string> physical = physicalPorts(d.client, JackPortIsOutput);
    const int channels = physical.empty() ? 2 : static_cast<int>(physical.size());
    for (int c = 0; c < channels; ++c) {
        const std::string portName = "in_" + std::to_string(c + 1);
        jack_port_t* port =
            jack_port_register(d.client, portName.c_str(), JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
        if (port == nullptr) {
            d.deactivate();
            throw InputDeviceError("JACK refused an input port");
        }
        d.ports[static_cast<size_t>(c)] = port;
        d.channels = c + 1;
    }
    for (int m = 0; m < std::min(channels, monitorChannels); ++m) {
        const std::string portName = "monitor_" + std::to_string(m + 1);
        jack_port_t* port =
            jack_port_register(d.client, portName.c_str(), JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
        if (port == nullptr) {
            d.deactivate();
            throw InputDeviceError("JACK refused a monitor port");
        }
        d.monitorPorts[static_cast<size_t>(m)] = port;
        d.monitors = m + 1;
    }
    if (jack_activate(d.client) != 0) {
        d.deactivate();
        throw InputDeviceError("JACK would not start the client");
    }
    d.active = true;
    for (size_t c = 0; c < physical.size(); ++c)
        jack_connect(d.client, physical[c].c_str(), jack_port_name(d.ports[c]));
    const double rate = jack_get_sample_rate(d.client);
    return CaptureFormat{rate, channels};
}

void JackInputDevice::start(CaptureSink& sink) {
    if (!impl_->active)
        throw InputDeviceError("no input stream is open");
    if (impl_->serverGone.load())
        throw InputDeviceError("the JACK server went away");
    impl_->sink.store(&sink, std::memory_order_release);
}

bool JackInputDevice::setMonitoring(bool on) {
    Impl& d = *impl_;
    if (!on || !d.active || d.serverGone.load() || d.monitors == 0) {
        d.unlinkMonitor();
        return false;
    }
    if (!d.monitorLinks.empty())
        return true;
    // The first two speakers; a mono input feeds both.
    const std::vector<std::string> speakers = physicalPorts(d.client, JackPortIsInput);
    for (size_t s = 0; s < speakers.size() && s < monitorChannels; ++s) {
        const auto m = std::min(s, static_cast<size_t>(d.monitors - 1));
        std::string from = jack_port_name(d.monitorPorts[m]);
        if (jack_connect(d.client, from.c_str(), speakers[s].c_str()) == 0)
            d.monitorLinks.emplace_back(std::move(from), speakers[s]);
    }
    d.monitoring = true;
    return !d.monitorLinks.empty();
}

void JackInputDevice::close() {
    impl_->deactivate();
}

bool JackInputDevice::isRunning() const {
    return impl_->sink.load() != nullptr && !impl_->serverGone.load();
}

std::vector<std::string> JackInputDevice::portNames() const {
    std::vector<std::string> names;
    if (impl_->active && !impl_->serverGone.load()) {
        for (int c = 0; c < impl_->channels; ++c)
            names.emplace_back(jack_port_name(impl_->ports[static_cast<size_t>(c)]));
        for (int m = 0; m < impl_->monitors; ++m)
            names.emplace_back(jack_port_name(impl_->monitorPorts[static_cast<size_t>(m)]));
    }
    return names;
}

} // namespace harlune
