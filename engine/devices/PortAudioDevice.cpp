#include "engine/devices/PortAudioDevice.h"

#include "engine/AudioDeviceError.h"
#include "engine/devices/PortAudioWatchdog.h"
#include "engine/devices/QuietStandardError.h"
#include "engine/devices/StreamResampler.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <portaudio.h>

namespace harlune {

namespace {

// Beyond this ratio the simple converter would alias badly; such a pair is refused.
constexpr double maximumRateRatio = 8.0;

/// The output device to use: JACK's default when a JACK server is running, else PortAudio's.
PaDeviceIndex chooseDevice() {
    const PaHostApiIndex jack = Pa_HostApiTypeIdToHostApiIndex(paJACK);
    if (jack >= 0) {
        const PaHostApiInfo* info = Pa_GetHostApiInfo(jack);
        if (info != nullptr && info->deviceCount > 0 && info->defaultOutputDevice != paNoDevice)
            return info->defaultOutputDevice;
    }
    return Pa_GetDefaultOutputDevice();
}

} // namespace

struct PortAudioDevice::Impl {
    PortAudioDevice& owner;
    bool initialised = false;
    PaStream* stream = nullptr;
    std::optional<StreamFormat> format;
    std::shared_ptr<RenderSource> source;
    std::unique_ptr<StreamResampler> resampler;
    double deviceRate = 0;
    int deviceChannels = 0;
    std::string hostApi;
    std::atomic<bool> active{false};
    std::atomic<bool> stopping{false};

    // Once the JACK server is gone, PortAudio's calls on the stream (stop, abort, close, and
    // terminate, which closes it) wait for a callback that never comes: the stream is
    // then left alone. PortAudio cannot be initialised anew while it is open, so its JACK client,
    // which cannot reach a new server, stays for the rest of the process.
    bool lost = false;
    // Last, so that it starts when the rest is ready and stops before the rest goes.
    PortAudioWatchdog watchdog{[this](double silentSeconds) {
        look(silentSeconds);
    }};

    explicit Impl(PortAudioDevice& device) : owner(device) {}

    /// The watchdog's look, under its mutex: a running stream that went quiet is lost.
    void look(double silentSeconds) {
        if (stream == nullptr || !active.load())
            return;
        const PaStreamInfo* info = Pa_GetStreamInfo(stream);
        const double patience = std::max(1.0, 10 * (info != nullptr ? info->outputLatency : 0.0));
        if ((Pa_IsStreamActive(stream) != 1 || silentSeconds > patience) && active.exchange(false)) {
            lost = true;
            owner.notifyConfigurationChange();
        }
    }

    static int onRender(const void*, void* output, unsigned long frameCount, const PaStreamCallbackTimeInfo*,
                        PaStreamCallbackFlags, void* data) {
        auto& self = *static_cast<Impl*>(data);
        self.watchdog.heard();
        auto** planes = static_cast<float**>(output);
        const int streamChannels = self.format->channelCount;
        const auto frames = static_cast<int>(frameCount);
        const auto used = static_cast<size_t>(std::min(streamChannels, self.deviceChannels));
        bool silence = false;
        // A device with fewer outputs than the stream gets the stream folded by the source.
        const std::span<float* const> outputs(planes, used);
        if (self.resampler)
            self.resampler->render(frames, outputs, silence);
        else
            self.source->render(frames, outputs, silence);
        if (streamChannels == 1)
            for (int c = 1; c < self.deviceChannels; ++c)
                std::copy_n(planes[0], frames, planes[c]);
        else
            for (int c = streamChannels; c < self.deviceChannels; ++c)
                std::fill_n(planes[c], frames, 0.0f);
        return paContinue;
    }

    static void onFinished(void* data) {
        auto& self = *static_cast<Impl*>(data);
        // A stream that ends without being asked to (a JACK server gone, a device unplugged).
        if (self.active.exchange(false) && !self.stopping.load())
            self.owner.notifyConfigurationChange();
    }

    void closeStream() {
        if (stream == nullptr || lost)
            return;
        stopping = true;
        active = false;
        Pa_AbortStream(stream);
        Pa_CloseStream(stream);
        stopping = false;
        stream = nullptr;
        resampler.reset();
    }
};

PortAudioDevice::PortAudioDevice(PostToMainThread postToMainThread)
    : AudioOutputDevice(std::move(postToMainThread)), impl_(std::make_unique<Impl>(*this)) {
    PaError error = paNoError;
    {
        const QuietStandardError quiet;
        error = Pa_Initialize();
    }
    if (error != paNoError)
        throw AudioDeviceError(portAudioText(error));
    impl_->initialised = true;
}

PortAudioDevice::~PortAudioDevice() {
    impl_->watchdog.stop();
    impl_->closeStream();
    if (impl_->initialised && !impl_->lost) {
        const QuietStandardError quiet;
        Pa_Terminate();
    }
}

void PortAudioDevice::configure(StreamFormat format, std::shared_ptr<RenderSource> source) {
    const std::lock_guard lock(impl_->watchdog.mutex());
    if (impl_->lost)
        throw AudioDeviceError("the sound server went away");
    impl_->closeStream();
    const PaDeviceIndex device = chooseDevice();
    if (device == paNoDevice)
        throw AudioDeviceError("no output device");
    const PaDeviceInfo* info = Pa_GetDeviceInfo(device);
    if (info == nullptr || info->maxOutputChannels < 1)
        throw AudioDeviceError("no output device");
    const PaHostApiInfo* api = Pa_GetHostApiInfo(info->hostApi);

    PaStreamParameters parameters{};
    parameters.device = device;
    parameters.channelCount = std::min(info->maxOutputChannels, 2);
    parameters.sampleFormat = paFloat32 | paNonInterleaved;
    parameters.suggestedLatency = info->defaultLowOutputLatency;

    double rate = format.sampleRate;
    {
        const QuietStandardError quiet;
        if (Pa_IsFormatSupported(nullptr, &parameters, rate) != paFormatIsSupported)
            rate = info->defaultSampleRate;
    }
    const double ratio = format.sampleRate / rate;
    if (!(rate > 0) || ratio > maximumRateRatio || ratio < 1.0 / maximumRateRatio)
        throwPlaybackFormatError(format.sampleRate);

    impl_->format = format;
    impl_->source = std::move(source);
    impl_->deviceRate = rate;
    impl_->deviceChannels = parameters.channelCount;
    impl_->hostApi = api != nullptr ? api->name : "";
    if (rate != format.sampleRate)
        impl_->resampler =
            std::make_unique<StreamResampler>(*impl_->source, format.channelCount, format.sampleRate, rate);

    PaError error = paNoError;
    {
        const QuietStandardError quiet;
        error = Pa_OpenStream(&impl_->stream, nullptr, &parameters, rate, paFramesPerBufferUnspecified,
                              paNoFlag, &Impl::onRender, impl_.get());
    }
    if (error != paNoError) {
        impl_->stream = nullptr;
        impl_->resampler.reset();
        if (error == paInvalidSampleRate)
            throwPlaybackFormatError(format.sampleRate);
        throw AudioDeviceError(portAudioText(error));
    }
    Pa_SetStreamFinishedCallback(impl_->stream, &Impl::onFinished);
}

void PortAudioDevice::start() {
    const std::lock_guard lock(impl_->watchdog.mutex());
    if (impl_->lost)
        throw AudioDeviceError("the sound server went away");
    if (impl_->stream == nullptr)
        throw AudioDeviceError("no stream was configured");
    if (Pa_IsStreamActive(impl_->stream) == 1)
        return;
    if (Pa_IsStreamStopped(impl_->stream) == 0)
        Pa_AbortStream(impl_->stream);
    impl_->watchdog.heard();
    PaError error = paNoError;
    {
        const QuietStandardError quiet;
        error = Pa_StartStream(impl_->stream);
    }
    if (error != paNoError)
        throw AudioDeviceError(portAudioText(error));
    impl_->active = true;
}

void PortAudioDevice::pause() {
    const std::lock_guard lock(impl_->watchdog.mutex());
    if (impl_->stream == nullptr || impl_->lost)
        return;
    impl_->stopping = true;
    impl_->active = false;
    Pa_StopStream(impl_->stream);
    impl_->stopping = false;
}

void PortAudioDevice::stop() {
    pause();
}

bool PortAudioDevice::isRunning() const {
    const std::lock_guard lock(impl_->watchdog.mutex());
    return impl_->stream != nullptr && impl_->active.load() && Pa_IsStreamActive(impl_->stream) == 1;
}

std::optional<StreamFormat> PortAudioDevice::format() const {
    return impl_->format;
}

double PortAudioDevice::presentationLatency() const {
    const std::lock_guard lock(impl_->watchdog.mutex());
    if (impl_->stream == nullptr)
        return 0;
    const PaStreamInfo* info = Pa_GetStreamInfo(impl_->stream);
    return info != nullptr ? info->outputLatency : 0;
}

double PortAudioDevice::deviceRate() const {
    return impl_->deviceRate;
}
std::string PortAudioDevice::hostApiName() const {
    return impl_->hostApi;
}

} // namespace harlune
