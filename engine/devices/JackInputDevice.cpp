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
constexpr const char* clientName = "harlune-input";

std::string statusText(jack_status_t status) {
    if ((status & JackServerFailed) != 0)
        return "no JACK server is running";
    if ((status & JackVersionError) != 0)
        return "the JACK server speaks another protocol version";
    return "the JACK server refused the client";
}

/// The server's physical capture ports (outputs, from JACK's side), in order.
std::vector<std::string> capturePorts(jack_client_t* client) {
    std::vector<std::string> names;
    const char** ports =
        jack_get_ports(client, nullptr, JACK_DEFAULT_AUDIO_TYPE, JackPortIsPhysical | JackPortIsOutput);
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

    // Set by JACK's thread when the server went away; the client is then only fit for closing.
    std::atomic<bool> serverGone{false};
    // Read by the process callback; the ports and the count above are fixed while it runs.
    std::atomic<CaptureSink*> sink{nullptr};
    std::array<const float*, maxChannels> planes{};

    explicit Impl(JackInputDevice& device) : owner(device) {}

    // JACK's real-time thread: the port buffers are the planes.
    static int process(jack_nframes_t frameCount, void* data) noexcept HARLUNE_NONBLOCKING {
        auto& self = *static_cast<Impl*>(data);
        CaptureSink* target = self.sink.load(std::memory_order_acquire);
        if (target == nullptr)
            return 0;
        for (int c = 0; c < self.channels; ++c)
            self.planes[static_cast<size_t>(c)] = static_cast<const float*>(
                jack_port_get_buffer(self.ports[static_cast<size_t>(c)], frameCount));
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
        if (client == nullptr)
            return;
        if (active && !serverGone.load())
            jack_deactivate(client); // returns once no process callback runs
        active = false;
        if (!serverGone.load())
            for (int c = 0; c < channels; ++c)
                jack_port_unregister(client, ports[static_cast<size_t>(c)]);
        ports.fill(nullptr);
        channels = 0;
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
    const auto physical = static_cast<int>(capturePorts(impl_->client).size());
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
    const std::vector<std::string> physical = capturePorts(d.client);
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

void JackInputDevice::close() {
    impl_->deactivate();
}

bool JackInputDevice::isRunning() const {
    return impl_->sink.load() != nullptr && !impl_->serverGone.load();
}

std::vector<std::string> JackInputDevice::portNames() const {
    std::vector<std::string> names;
    if (impl_->active && !impl_->serverGone.load())
        for (int c = 0; c < impl_->channels; ++c)
            names.emplace_back(jack_port_name(impl_->ports[static_cast<size_t>(c)]));
    return names;
}

} // namespace harlune
