#include "engine/devices/JackDevice.h"

#include "engine/AudioDeviceError.h"
#include "engine/devices/JackQuiet.h"
#include "engine/devices/StreamResampler.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <jack/jack.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace harlune {

namespace {

// Beyond this ratio the simple converter would alias badly; such a pair is refused.
constexpr double maximumRateRatio = 8.0;
// Pause between two attempts to reach a server that went away.
constexpr auto retryInterval = std::chrono::milliseconds(500);

} // namespace

/// One client of one server run. Everything the process callback reads is fixed before the client
/// is activated, so the callback takes no lock. Closing the client ends its callbacks.
struct JackConnection {
    jack_client_t* client = nullptr;
    std::array<jack_port_t*, StreamResampler::maxChannels> ports{};
    int channels = 0;
    double rate = 0;
    std::shared_ptr<RenderSource> source;
    std::unique_ptr<StreamResampler> resampler;
    const std::atomic<bool>* running = nullptr; ///< the device's wish for sound
    std::atomic<bool> serverGone{false};
    std::function<void()> onServerGone; ///< wakes the device's thread; called from JACK's thread

    JackConnection() = default;
    JackConnection(const JackConnection&) = delete;
    JackConnection& operator=(const JackConnection&) = delete;
    ~JackConnection() {
        if (client != nullptr)
            jack_client_close(client);
    }

    // Audio thread: JACK's port buffers are the planar output buffers.
    static int process(jack_nframes_t frameCount, void* data) noexcept {
        auto& self = *static_cast<JackConnection*>(data);
        std::array<float*, StreamResampler::maxChannels> planes{};
        for (int c = 0; c < self.channels; ++c)
            planes[static_cast<size_t>(c)] =
                static_cast<float*>(jack_port_get_buffer(self.ports[static_cast<size_t>(c)], frameCount));
        const auto frames = static_cast<int>(frameCount);
        if (!self.running->load(std::memory_order_relaxed)) {
            for (int c = 0; c < self.channels; ++c)
                std::fill_n(planes[static_cast<size_t>(c)], frames, 0.0f);
            return 0;
        }
        const std::span<float* const> outputs(planes.data(), static_cast<size_t>(self.channels));
        bool silence = false;
        if (self.resampler)
            self.resampler->render(frames, outputs, silence);
        else
            self.source->render(frames, outputs, silence);
        return 0;
    }

    // JACK's thread, when the server died or threw the client out. The dead client may not be
    // closed from here: the device's own thread does it.
    static void shutdown(jack_status_t, const char*, void* data) {
        auto& self = *static_cast<JackConnection*>(data);
        self.serverGone = true;
        self.onServerGone();
    }
};

namespace {

std::string statusText(jack_status_t status) {
    if ((status & JackServerFailed) != 0)
        return "no JACK server is running";
    if ((status & JackVersionError) != 0)
        return "the JACK server speaks another protocol version";
    return "the JACK server refused the client";
}

/// Opens, activates and wires a client that plays `format` from `source`. Throws
/// `AudioDeviceError` when no server answers or it refuses, the format error for a rate too far
/// from the server's. May wait for the server: never on the main thread once a server was lost.
std::unique_ptr<JackConnection> openConnection(StreamFormat format, std::shared_ptr<RenderSource> source,
                                               const std::atomic<bool>& running,
                                               std::function<void()> onServerGone) {
    quietJack();
    auto connection = std::make_unique<JackConnection>();
    jack_status_t status{};
    connection->client = jack_client_open("harlune", JackNoStartServer, &status);
    if (connection->client == nullptr)
        throw AudioDeviceError(statusText(status));
    connection->channels = format.channelCount;
    connection->rate = jack_get_sample_rate(connection->client);
    connection->source = std::move(source);
    connection->running = &running;
    connection->onServerGone = std::move(onServerGone);
    const double ratio = format.sampleRate / connection->rate;
    if (!(connection->rate > 0) || ratio > maximumRateRatio || ratio < 1.0 / maximumRateRatio)
        throwPlaybackFormatError(format.sampleRate);
    if (connection->rate != format.sampleRate)
        connection->resampler = std::make_unique<StreamResampler>(*connection->source, format.channelCount,
                                                                  format.sampleRate, connection->rate);
    for (int c = 0; c < format.channelCount; ++c) {
        const std::string portName = "out_" + std::to_string(c + 1);
        auto*& port = connection->ports[static_cast<size_t>(c)];
        port = jack_port_register(connection->client, portName.c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                  JackPortIsOutput, 0);
        if (port == nullptr)
            throw AudioDeviceError("JACK refused an output port");
    }
    jack_set_process_callback(connection->client, &JackConnection::process, connection.get());
    jack_on_info_shutdown(connection->client, &JackConnection::shutdown, connection.get());
    if (jack_activate(connection->client) != 0)
        throw AudioDeviceError("JACK would not start the client");

    // The first two speakers; a mono port feeds both.
    const char** speakers = jack_get_ports(connection->client, nullptr, JACK_DEFAULT_AUDIO_TYPE,
                                           JackPortIsPhysical | JackPortIsInput);
    for (int s = 0; speakers != nullptr && speakers[s] != nullptr && s < 2; ++s) {
        const int c = std::min(s, format.channelCount - 1);
        jack_connect(connection->client, jack_port_name(connection->ports[static_cast<size_t>(c)]),
                     speakers[s]);
    }
    if (speakers != nullptr)
        jack_free(speakers);
    return connection;
}

} // namespace

struct JackDevice::Impl {
    JackDevice& owner;

    // Main thread and the device's thread, under `mutex`. JACK calls that may wait for a server
    // are never made while it is held, so the main thread never waits behind them.
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::optional<StreamFormat> format;
    std::shared_ptr<RenderSource> source;
    std::unique_ptr<JackConnection> connection;
    uint64_t generation = 0; ///< bumped by `configure`: a client opened for an older one is dropped
    bool wanted = false;     ///< the main thread wants sound (`start` without `pause` since)
    bool lost = false;       ///< the server went away and no new client came up yet
    bool quitting = false;
    std::vector<std::unique_ptr<JackConnection>> dead; ///< clients of a dead server, to close

    std::atomic<bool> running{false}; ///< read by the process callback
    std::thread reconnector;

    explicit Impl(JackDevice& device) : owner(device) {}

    std::function<void()> serverGoneHandler() {
        return [this] {
            wake.notify_all();
        };
    }

    /// The device's thread: notices a dead server, closes its client, and while sound is wanted
    /// opens a new one every half second until a server answers.
    void reconnect() {
        std::unique_lock lock(mutex);
        while (!quitting) {
            wake.wait_for(lock, retryInterval);
            if (quitting)
                break;
            if (connection && connection->serverGone.load()) {
                lost = true;
                dead.push_back(std::move(connection));
                if (running.exchange(false)) {
                    lock.unlock();
                    owner.notifyConfigurationChange();
                    lock.lock();
                }
            }
            if (!dead.empty()) {
                auto closing = std::move(dead);
                dead.clear();
                lock.unlock();
                closing.clear();
                lock.lock();
            }
            if (!lost || !wanted || !format || quitting)
                continue;
            const StreamFormat wantedFormat = *format;
            const uint64_t attempt = generation;
            std::shared_ptr<RenderSource> wantedSource = source;
            lock.unlock();
            std::unique_ptr<JackConnection> fresh;
            try {
                fresh = openConnection(wantedFormat, std::move(wantedSource), running, serverGoneHandler());
            } catch (const std::exception&) {
                // No server yet, or one that refuses: the next round tries again.
            }
            lock.lock();
            if (!fresh)
                continue;
            if (attempt != generation || !lost || quitting) {
                dead.push_back(std::move(fresh)); // configured anew meanwhile: the next round
                wake.notify_all();
                continue;
            }
            connection = std::move(fresh);
            lost = false;
            running = wanted;
        }
    }
};

JackDevice::JackDevice(PostToMainThread postToMainThread)
    : AudioOutputDevice(std::move(postToMainThread)), impl_(std::make_unique<Impl>(*this)) {
    impl_->reconnector = std::thread([this] { impl_->reconnect(); });
}

JackDevice::~JackDevice() {
    {
        const std::lock_guard lock(impl_->mutex);
        impl_->quitting = true;
        impl_->running = false;
    }
    impl_->wake.notify_all();
    impl_->reconnector.join();
    // The clients go before the flag and the condition their callbacks use.
    impl_->connection.reset();
    impl_->dead.clear();
}

bool JackDevice::isServerAvailable() {
    quietJack();
    jack_status_t status{};
    jack_client_t* client = jack_client_open("harlune-probe", JackNoStartServer, &status);
    if (client == nullptr)
        return false;
    jack_client_close(client);
    return true;
}

void JackDevice::configure(StreamFormat format, std::shared_ptr<RenderSource> source) {
    if (format.channelCount < 1 || format.channelCount > StreamResampler::maxChannels ||
        !(format.sampleRate > 0))
        throwPlaybackFormatError(format.sampleRate);
    std::unique_ptr<JackConnection> previous;
    bool lost = false;
    {
        const std::lock_guard lock(impl_->mutex);
        impl_->running = false;
        impl_->wanted = false;
        ++impl_->generation;
        impl_->format = format;
        impl_->source = source;
        lost = impl_->lost;
        if (!lost)
            previous = std::move(impl_->connection);
        // A client whose server just died is closed by the device's thread, not here.
        if (previous && previous->serverGone.load())
            impl_->dead.push_back(std::move(previous));
    }
    // With the server gone, waiting for it would freeze the caller: the device's thread connects
    // once sound is wanted.
    if (lost)
        return;
    previous.reset();
    auto fresh = openConnection(format, std::move(source), impl_->running, impl_->serverGoneHandler());
    const std::lock_guard lock(impl_->mutex);
    impl_->connection = std::move(fresh);
}

void JackDevice::start() {
    {
        const std::lock_guard lock(impl_->mutex);
        if (!impl_->format || !impl_->source)
            throw AudioDeviceError("no stream was configured");
        impl_->wanted = true;
        if (impl_->lost || !impl_->connection || impl_->connection->serverGone.load()) {
            // Reconnect off this thread; a server that is gone is tried again until it answers.
            impl_->lost = true;
            impl_->running = false;
        } else {
            impl_->running = true;
            return;
        }
    }
    impl_->wake.notify_all();
}

void JackDevice::pause() {
    const std::lock_guard lock(impl_->mutex);
    impl_->wanted = false;
    impl_->running = false;
}

void JackDevice::stop() {
    pause();
}

bool JackDevice::isRunning() const {
    const std::lock_guard lock(impl_->mutex);
    return impl_->running.load() && impl_->connection && !impl_->connection->serverGone.load();
}

std::optional<StreamFormat> JackDevice::format() const {
    const std::lock_guard lock(impl_->mutex);
    return impl_->format;
}

double JackDevice::presentationLatency() const {
    const std::lock_guard lock(impl_->mutex);
    const JackConnection* connection = impl_->connection.get();
    if (connection == nullptr || connection->serverGone.load() || connection->channels == 0)
        return 0;
    jack_latency_range_t range{};
    jack_port_get_latency_range(connection->ports[0], JackPlaybackLatency, &range);
    return static_cast<double>(range.max) / connection->rate;
}

double JackDevice::deviceRate() const {
    const std::lock_guard lock(impl_->mutex);
    return impl_->connection ? impl_->connection->rate : 0;
}

} // namespace harlune
