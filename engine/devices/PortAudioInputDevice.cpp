#include "engine/devices/PortAudioInputDevice.h"

#include "engine/Realtime.h"
#include "engine/devices/PortAudioWatchdog.h"
#include "engine/devices/QuietStandardError.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <portaudio.h>

namespace harlune {

namespace {

constexpr int maxChannels = 64;

/// The channels to open on a device. ALSA's plug-in devices ("default", "pulse", "dmix" ...)
/// claim dozens of channels they only make by copying; only hardware ("(hw:N,M)" in the name)
/// is taken at its word, the rest at two at most.
int usableChannels(const PaDeviceInfo& info) {
    const PaHostApiInfo* api = Pa_GetHostApiInfo(info.hostApi);
    const bool alsaPlugin =
        api != nullptr && api->type == paALSA && std::strstr(info.name, "(hw:") == nullptr;
    const int channels = std::min(info.maxInputChannels, maxChannels);
    return alsaPlugin ? std::min(channels, 2) : channels;
}

} // namespace

struct PortAudioInputDevice::Impl {
    PortAudioInputDevice& owner;
    bool initialised = false;
    PaStream* stream = nullptr;
    std::atomic<CaptureSink*> sink{nullptr};
    std::atomic<bool> stopping{false};
    int channels = 0; // fixed while the stream runs

    // Once its server is gone, PortAudio's calls on the stream wait for a callback that never
    // comes: such a stream is left alone, and PortAudio stays initialised for the process.
    bool lost = false;
    // Last, so that it starts when the rest is ready and stops before the rest goes.
    PortAudioWatchdog watchdog{[this](double silentSeconds) {
        look(silentSeconds);
    }};

    explicit Impl(PortAudioInputDevice& device) : owner(device) {}

    /// The watchdog's look, under its mutex: a capture that went quiet lost its device.
    void look(double silentSeconds) {
        if (stream == nullptr || lost || sink.load() == nullptr)
            return;
        const PaStreamInfo* info = Pa_GetStreamInfo(stream);
        const double patience = std::max(1.0, 10 * (info != nullptr ? info->inputLatency : 0.0));
        if (silentSeconds > patience && sink.exchange(nullptr) != nullptr) {
            lost = true;
            owner.notifyLoss("the input device stopped delivering audio");
        }
    }

    // PortAudio's real-time thread: with paNonInterleaved the input is one pointer per channel.
    static int onCapture(const void* input, void*, unsigned long frameCount, const PaStreamCallbackTimeInfo*,
                         PaStreamCallbackFlags, void* data) noexcept HARLUNE_NONBLOCKING {
        auto& self = *static_cast<Impl*>(data);
        self.watchdog.heard();
        CaptureSink* target = self.sink.load(std::memory_order_acquire);
        if (target != nullptr && input != nullptr)
            target->capture(static_cast<int>(frameCount),
                            std::span<const float* const>(static_cast<const float* const*>(input),
                                                          static_cast<size_t>(self.channels)));
        return paContinue;
    }

    static void onFinished(void* data) {
        auto& self = *static_cast<Impl*>(data);
        // Ended without being asked to: the device went away.
        if (!self.stopping.load() && self.sink.exchange(nullptr) != nullptr)
            self.owner.notifyLoss("the input device stopped");
    }

    /// Under the watchdog's mutex.
    void closeStream() {
        sink.store(nullptr, std::memory_order_release);
        if (stream == nullptr)
            return;
        if (lost) { // see `lost`
            stream = nullptr;
            channels = 0;
            return;
        }
        stopping = true;
        Pa_AbortStream(stream);
        Pa_CloseStream(stream);
        stopping = false;
        stream = nullptr;
        channels = 0;
    }
};

PortAudioInputDevice::PortAudioInputDevice(PostToMainThread postToMainThread)
    : AudioInputDevice(std::move(postToMainThread)), impl_(std::make_unique<Impl>(*this)) {
    PaError error = paNoError;
    {
        const QuietStandardError quiet;
        error = Pa_Initialize();
    }
    if (error != paNoError)
        throw InputDeviceError(portAudioText(error));
    impl_->initialised = true;
}

PortAudioInputDevice::~PortAudioInputDevice() {
    impl_->watchdog.stop();
    const bool lost = impl_->lost;
    impl_->closeStream();
    if (impl_->initialised && !lost) {
        const QuietStandardError quiet;
        Pa_Terminate();
    }
}

std::vector<InputDevice> PortAudioInputDevice::inputDevices() {
    std::vector<InputDevice> devices;
    const PaDeviceIndex count = Pa_GetDeviceCount();
    if (count < 0)
        throw InputDeviceError(portAudioText(count));
    for (PaDeviceIndex index = 0; index < count; ++index) {
        const PaDeviceInfo* info = Pa_GetDeviceInfo(index);
        if (info == nullptr || info->maxInputChannels < 1)
            continue;
        const PaHostApiInfo* api = Pa_GetHostApiInfo(info->hostApi);
        InputDevice device;
        device.id = static_cast<uint32_t>(index);
        device.uid = std::string(api != nullptr ? api->name : "PortAudio") + ":" + info->name;
        device.name = info->name;
        device.channelCount = usableChannels(*info);
        device.sampleRate = info->defaultSampleRate;
        devices.push_back(std::move(device));
    }
    return devices;
}

std::optional<uint32_t> PortAudioInputDevice::defaultInputDevice() {
    const PaDeviceIndex index = Pa_GetDefaultInputDevice();
    if (index == paNoDevice)
        return std::nullopt;
    return static_cast<uint32_t>(index);
}

CaptureFormat PortAudioInputDevice::open(std::optional<uint32_t> deviceID) {
    Impl& d = *impl_;
    const std::lock_guard lock(d.watchdog.mutex());
    if (d.lost)
        throw InputDeviceError("the sound server went away");
    d.closeStream();
    const PaDeviceIndex index = deviceID ? static_cast<PaDeviceIndex>(*deviceID) : Pa_GetDefaultInputDevice();
    const PaDeviceInfo* info = index >= 0 && index < Pa_GetDeviceCount() ? Pa_GetDeviceInfo(index) : nullptr;
    if (info == nullptr || info->maxInputChannels < 1)
        throw InputDeviceError("no such input device");

    PaStreamParameters parameters{};
    parameters.device = index;
    parameters.channelCount = usableChannels(*info);
    parameters.sampleFormat = paFloat32 | paNonInterleaved;
    parameters.suggestedLatency = info->defaultLowInputLatency;
    double rate = info->defaultSampleRate;
    {
        const QuietStandardError quiet;
        for (double candidate : {info->defaultSampleRate, 48000.0, 44100.0})
            if (candidate > 0 &&
                Pa_IsFormatSupported(&parameters, nullptr, candidate) == paFormatIsSupported) {
                rate = candidate;
                break;
            }
    }
    d.channels = parameters.channelCount;
    PaError error = paNoError;
    {
        const QuietStandardError quiet;
        error = Pa_OpenStream(&d.stream, &parameters, nullptr, rate, paFramesPerBufferUnspecified, paNoFlag,
                              &Impl::onCapture, &d);
        if (error == paNoError) {
            Pa_SetStreamFinishedCallback(d.stream, &Impl::onFinished);
            d.watchdog.heard();
            // Running from here on lets a device that cannot deliver fail now, not at the take.
            error = Pa_StartStream(d.stream);
        }
    }
    if (error != paNoError) {
        if (d.stream != nullptr)
            Pa_CloseStream(d.stream);
        d.stream = nullptr;
        d.channels = 0;
        throw InputDeviceError(portAudioText(error));
    }
    const PaStreamInfo* streamInfo = Pa_GetStreamInfo(d.stream);
    return CaptureFormat{streamInfo != nullptr ? streamInfo->sampleRate : rate, parameters.channelCount};
}

void PortAudioInputDevice::start(CaptureSink& sink) {
    const std::lock_guard lock(impl_->watchdog.mutex());
    if (impl_->stream == nullptr || impl_->lost)
        throw InputDeviceError("no input stream is open");
    impl_->watchdog.heard();
    impl_->sink.store(&sink, std::memory_order_release);
}

void PortAudioInputDevice::close() {
    const std::lock_guard lock(impl_->watchdog.mutex());
    impl_->closeStream();
}

bool PortAudioInputDevice::isRunning() const {
    return impl_->sink.load() != nullptr;
}

} // namespace harlune
