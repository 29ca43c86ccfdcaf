#include "engine/devices/PipeWireDevice.h"

#include "engine/AudioDeviceError.h"
#include "engine/devices/PipeWireLatency.h"
#include "engine/devices/PipeWireLoopLock.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <ctime>
#include <mutex>
#include <pipewire/pipewire.h>
#include <pthread.h>
#include <sched.h>
#include <spa/param/audio/format-utils.h>
#include <spa/utils/result.h>

namespace harlune {

namespace {

// Longest wait for the server to accept or refuse a stream.
constexpr int connectTimeoutSeconds = 5;
// Pause between two attempts to reach a server that went away.
constexpr int64_t retryNanoseconds = 500'000'000;

void initialisePipeWire() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

int64_t monotonicNanoseconds() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

} // namespace

struct PipeWireDevice::Impl {
    PipeWireDevice& owner;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    spa_hook listener{};
    std::optional<StreamFormat> format;
    std::shared_ptr<RenderSource> source;

    // Loop thread and main thread, under the loop lock.
    pw_stream_state state = PW_STREAM_STATE_UNCONNECTED;
    std::string error;
    bool active = false;           ///< the stream runs because the main thread asked for it
    bool closingByRequest = false; ///< our own disconnect: not a configuration change
    // After the server dropped the stream, connecting happens here on the loop thread, never on
    // the main thread: `start` and `configure` only ask for it and return at once.
    bool wanted = false;              ///< the main thread wants sound (`start` without `pause` since)
    bool lost = false;                ///< the server dropped the stream and no new one came up yet
    bool reconnecting = false;        ///< a stream is connecting in the background
    spa_source* retryTimer = nullptr; ///< the next attempt, or the end of the wait for one

    // Audio thread only; cleared for each new stream.
    bool priorityAsked = false;

    // Audio thread writes, others read.
    std::atomic<int64_t> lastCallbackNanoseconds{0};
    std::atomic<int64_t> callbacks{0};
    std::atomic<int64_t> late{0};

    explicit Impl(PipeWireDevice& device) : owner(device) {}

    static void onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char* error) {
        auto& self = *static_cast<Impl*>(data);
        self.state = state;
        self.error = error != nullptr ? error : "";
        pw_thread_loop_signal(self.loop, false);
        if (self.closingByRequest)
            return;
        const bool failed = state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED;
        if (self.reconnecting) {
            if (state == PW_STREAM_STATE_PAUSED || state == PW_STREAM_STATE_STREAMING) {
                self.reconnecting = false;
                self.lost = false;
                self.armRetry(0);
                if (self.wanted) {
                    pw_stream_set_active(self.stream, true);
                    self.active = true;
                }
            } else if (failed) {
                // A stream may not be destroyed from its own event: the timer tries again.
                self.reconnecting = false;
                self.armRetry(retryNanoseconds);
            }
            return;
        }
        if (failed) {
            self.lost = true;
            if (self.active) {
                self.active = false;
                self.owner.notifyConfigurationChange();
            }
        }
    }

    /// Loop lock held. Arms the retry timer `nanoseconds` from now, or disarms it for 0.
    void armRetry(int64_t nanoseconds) {
        timespec value{};
        value.tv_sec = static_cast<time_t>(nanoseconds / 1'000'000'000);
        value.tv_nsec = static_cast<long>(nanoseconds % 1'000'000'000);
        pw_loop_update_timer(pw_thread_loop_get_loop(loop), retryTimer, nanoseconds > 0 ? &value : nullptr,
                             nullptr, false);
    }

    /// Loop thread: a failed attempt waited its turn, or a connecting stream got no answer in
    /// time. Tries again while sound is wanted.
    static void onRetry(void* data, uint64_t) {
        auto& self = *static_cast<Impl*>(data);
        self.reconnecting = false;
        if (self.wanted && self.format)
            self.connectInBackground();
        else
            self.destroyStream(); // a later `start` connects anew
    }

    /// Loop lock held. Starts connecting a new stream for `format` without waiting; the state
    /// event activates it once it is up when sound is wanted, and a failure is retried.
    void connectInBackground() {
        destroyStream();
        reconnecting = true; // before the connection, whose first events may come at once
        int result = -1;
        try {
            result = openStream();
        } catch (const AudioDeviceError&) {
            // No stream object this time (out of memory, say): the timer tries again.
        }
        if (result < 0) {
            reconnecting = false;
            destroyStream();
            armRetry(retryNanoseconds);
        } else if (reconnecting) {
            armRetry(connectTimeoutSeconds * 1'000'000'000LL);
        }
    }

    static void onProcess(void* data) {
        auto& self = *static_cast<Impl*>(data);
        if (!self.priorityAsked) {
            self.priorityAsked = true;
            askForRealtimePriority();
        }
        pw_buffer* buffer = pw_stream_dequeue_buffer(self.stream);
        if (buffer == nullptr)
            return;
        spa_buffer* spa = buffer->buffer;
        const int channels = self.format ? self.format->channelCount : 0;
        std::array<float*, 2> planes{};
        uint32_t capacity = UINT32_MAX;
        for (int c = 0; c < channels && c < static_cast<int>(spa->n_datas); ++c) {
            planes[static_cast<size_t>(c)] = static_cast<float*>(spa->datas[c].data);
            capacity = std::min(capacity, static_cast<uint32_t>(spa->datas[c].maxsize / sizeof(float)));
        }
        if (capacity == UINT32_MAX)
            capacity = 0;
        auto frames = static_cast<uint32_t>(
            buffer->requested != 0 ? std::min<uint64_t>(buffer->requested, capacity) : capacity);
        bool silence = false;
        if (frames > 0)
            self.source->render(static_cast<int>(frames),
                                std::span<float* const>(planes.data(), static_cast<size_t>(channels)),
                                silence);
        for (uint32_t c = 0; c < spa->n_datas; ++c) {
            spa->datas[c].chunk->offset = 0;
            spa->datas[c].chunk->stride = sizeof(float);
            spa->datas[c].chunk->size = static_cast<uint32_t>(frames * sizeof(float));
        }
        buffer->size = frames;
        pw_stream_queue_buffer(self.stream, buffer);
        self.countCallback(frames);
    }

    // The client configuration's module raises the data thread through a desktop session's
    // RealtimeKit, which a bare or headless system lacks; where the process may set real-time
    // scheduling itself, this does it once, at the stream's first callback. A refusal leaves the
    // thread as it was.
    static void askForRealtimePriority() noexcept {
        int policy = 0;
        sched_param parameters{};
        if (pthread_getschedparam(pthread_self(), &policy, &parameters) != 0 || policy == SCHED_FIFO ||
            policy == SCHED_RR)
            return;
        parameters.sched_priority = std::min(70, sched_get_priority_max(SCHED_FIFO));
        pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters);
    }

    void countCallback(uint32_t frames) noexcept {
        const int64_t now = monotonicNanoseconds();
        const int64_t previous = lastCallbackNanoseconds.exchange(now, std::memory_order_relaxed);
        callbacks.fetch_add(1, std::memory_order_relaxed);
        if (previous == 0 || !format || frames == 0)
            return;
        const double period = frames / format->sampleRate * 1e9;
        if (static_cast<double>(now - previous) > 1.5 * period)
            late.fetch_add(1, std::memory_order_relaxed);
    }

    static constexpr pw_stream_events events = [] {
        pw_stream_events e{};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.state_changed = onStateChanged;
        e.process = onProcess;
        return e;
    }();

    /// Loop lock held. Destroys the stream and its connection, if any, without raising an event.
    void destroyStream() {
        closingByRequest = true;
        if (stream != nullptr) {
            pw_stream_disconnect(stream);
            spa_hook_remove(&listener);
            pw_stream_destroy(stream);
            stream = nullptr;
        }
        if (core != nullptr) {
            pw_core_disconnect(core);
            core = nullptr;
        }
        if (context != nullptr) {
            pw_context_destroy(context);
            context = nullptr;
        }
        closingByRequest = false;
        state = PW_STREAM_STATE_UNCONNECTED;
    }

    /// Loop lock held. Creates an inactive stream for `format` and starts its connection; gives
    /// `pw_stream_connect`'s result.
    int openStream() {
        pw_properties* properties = pw_properties_new(
            PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE, "Music",
            PW_KEY_NODE_NAME, "harlune", PW_KEY_APP_NAME, "Harlune", PW_KEY_NODE_DESCRIPTION, "Harlune",
            // The real-time client setup: the data thread asks for real-time priority.
            PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr);
        stream = pw_stream_new_simple(pw_thread_loop_get_loop(loop), "harlune", properties, &events, this);
        if (stream == nullptr)
            throw AudioDeviceError("PipeWire refused a new stream");

        spa_audio_info_raw info{};
        info.format = SPA_AUDIO_FORMAT_F32P;
        info.rate = static_cast<uint32_t>(format->sampleRate);
        info.channels = static_cast<uint32_t>(format->channelCount);
        if (format->channelCount == 1) {
            info.position[0] = SPA_AUDIO_CHANNEL_MONO;
        } else {
            info.position[0] = SPA_AUDIO_CHANNEL_FL;
            info.position[1] = SPA_AUDIO_CHANNEL_FR;
        }
        std::array<uint8_t, 1024> storage{};
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage.data(), static_cast<uint32_t>(storage.size()));
        const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};

        state = PW_STREAM_STATE_CONNECTING;
        error.clear();
        priorityAsked = false;
        const auto flags =
            static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                         PW_STREAM_FLAG_RT_PROCESS | PW_STREAM_FLAG_INACTIVE);
        return pw_stream_connect(stream, PW_DIRECTION_OUTPUT, PW_ID_ANY, flags, params, 1);
    }

    /// Loop lock held. A new inactive stream for `format`, connected and negotiated; waits for the
    /// server's answer, so that a first connection reports its failure.
    void connect() {
        destroyStream();
        const int result = openStream();
        if (result < 0) {
            const std::string reason = spa_strerror(result);
            destroyStream();
            throw AudioDeviceError("PipeWire: " + reason);
        }
        timespec deadline{};
        pw_thread_loop_get_time(loop, &deadline, connectTimeoutSeconds * SPA_NSEC_PER_SEC);
        while (state == PW_STREAM_STATE_CONNECTING || state == PW_STREAM_STATE_UNCONNECTED) {
            if (pw_thread_loop_timed_wait_full(loop, &deadline) != 0)
                break;
        }
        if (state != PW_STREAM_STATE_PAUSED && state != PW_STREAM_STATE_STREAMING) {
            const std::string reason = state == PW_STREAM_STATE_ERROR && !error.empty()
                                           ? error
                                           : "no answer from the PipeWire server";
            destroyStream();
            throw AudioDeviceError(reason);
        }
    }
};

PipeWireDevice::PipeWireDevice(PostToMainThread postToMainThread)
    : AudioOutputDevice(std::move(postToMainThread)), impl_(std::make_unique<Impl>(*this)) {
    initialisePipeWire();
    impl_->loop = pw_thread_loop_new("harlune-playback", nullptr);
    if (impl_->loop == nullptr)
        throw AudioDeviceError("could not start the PipeWire loop");
    impl_->retryTimer = pw_loop_add_timer(pw_thread_loop_get_loop(impl_->loop), &Impl::onRetry, impl_.get());
    if (impl_->retryTimer == nullptr || pw_thread_loop_start(impl_->loop) < 0) {
        pw_thread_loop_destroy(impl_->loop);
        throw AudioDeviceError("could not start the PipeWire loop");
    }
}

PipeWireDevice::~PipeWireDevice() {
    if (impl_->loop != nullptr) {
        {
            const PipeWireLoopLock lock(impl_->loop);
            impl_->active = false;
            impl_->wanted = false;
            impl_->destroyStream();
            pw_loop_destroy_source(pw_thread_loop_get_loop(impl_->loop), impl_->retryTimer);
        }
        pw_thread_loop_stop(impl_->loop);
        pw_thread_loop_destroy(impl_->loop);
    }
}

bool PipeWireDevice::isServerAvailable() {
    initialisePipeWire();
    pw_main_loop* loop = pw_main_loop_new(nullptr);
    if (loop == nullptr)
        return false;
    pw_context* context = pw_context_new(pw_main_loop_get_loop(loop), nullptr, 0);
    bool available = false;
    if (context != nullptr) {
        pw_core* core = pw_context_connect(context, nullptr, 0);
        available = core != nullptr;
        if (core != nullptr)
            pw_core_disconnect(core);
        pw_context_destroy(context);
    }
    pw_main_loop_destroy(loop);
    return available;
}

void PipeWireDevice::configure(StreamFormat format, std::shared_ptr<RenderSource> source) {
    // PipeWire rates are whole numbers.
    if (format.sampleRate != std::floor(format.sampleRate) || format.sampleRate > 768000 ||
        format.channelCount < 1 || format.channelCount > 2)
        throwPlaybackFormatError(format.sampleRate);
    const PipeWireLoopLock lock(impl_->loop);
    impl_->active = false;
    impl_->wanted = false;
    impl_->reconnecting = false;
    impl_->armRetry(0);
    impl_->destroyStream();
    impl_->format = format;
    impl_->source = std::move(source);
    impl_->callbacks = 0;
    impl_->late = 0;
    impl_->lastCallbackNanoseconds = 0;
    // With the server gone, waiting for it would freeze the caller: connect in the background.
    if (impl_->lost)
        impl_->connectInBackground();
    else
        impl_->connect();
}

void PipeWireDevice::start() {
    if (!impl_->format || !impl_->source)
        throw AudioDeviceError("no stream was configured");
    const PipeWireLoopLock lock(impl_->loop);
    impl_->wanted = true;
    impl_->lastCallbackNanoseconds = 0;
    if (impl_->reconnecting)
        return; // the stream starts when it is up
    if (impl_->stream == nullptr || impl_->state == PW_STREAM_STATE_ERROR ||
        impl_->state == PW_STREAM_STATE_UNCONNECTED) {
        // Reconnect off this thread; a server that is gone is tried again until it answers.
        impl_->connectInBackground();
        return;
    }
    const int result = pw_stream_set_active(impl_->stream, true);
    if (result < 0)
        throw AudioDeviceError(std::string("PipeWire: ") + spa_strerror(result));
    impl_->active = true;
}

void PipeWireDevice::pause() {
    const PipeWireLoopLock lock(impl_->loop);
    impl_->active = false;
    impl_->wanted = false;
    if (impl_->reconnecting)
        return; // the stream stays inactive when it comes up
    impl_->armRetry(0);
    if (impl_->stream != nullptr)
        pw_stream_set_active(impl_->stream, false);
}

void PipeWireDevice::stop() {
    pause();
}

bool PipeWireDevice::isRunning() const {
    const PipeWireLoopLock lock(impl_->loop);
    return impl_->active && impl_->stream != nullptr && impl_->state != PW_STREAM_STATE_ERROR &&
           impl_->state != PW_STREAM_STATE_UNCONNECTED;
}

std::optional<StreamFormat> PipeWireDevice::format() const {
    return impl_->format;
}

double PipeWireDevice::presentationLatency() const {
    const PipeWireLoopLock lock(impl_->loop);
    if (impl_->stream == nullptr || !impl_->format)
        return 0;
    pw_time time{};
    if (pw_stream_get_time_n(impl_->stream, &time, sizeof time) < 0)
        return 0;
    return pipeWireLatencySeconds(time.delay, time.rate.num, time.rate.denom, time.queued, time.buffered,
                                  impl_->format->sampleRate);
}

int64_t PipeWireDevice::lateCallbacks() const {
    return impl_->late.load(std::memory_order_relaxed);
}
int64_t PipeWireDevice::callbackCount() const {
    return impl_->callbacks.load(std::memory_order_relaxed);
}

} // namespace harlune
