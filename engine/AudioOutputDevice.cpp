#include "engine/AudioOutputDevice.h"

#include "base/HarluneError.h"

#include <charconv>
#include <cmath>

namespace harlune {

namespace {

// Rates beyond this are no audio format any device offers.
constexpr double maximumSampleRate = 1536000;

std::string decimal(double value) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed);
    return std::string(text, result.ptr);
}

} // namespace

void throwPlaybackFormatError(double sampleRate) {
    throw HarluneError::unsupportedFormat("playback format " + decimal(sampleRate) + " Hz");
}

StreamFormat makeStreamFormat(double sampleRate, int channelCount) {
    if (!std::isfinite(sampleRate) || sampleRate <= 0 || sampleRate > maximumSampleRate || channelCount < 1 ||
        channelCount > 2)
        throwPlaybackFormatError(sampleRate);
    return {sampleRate, channelCount};
}

AudioOutputDevice::AudioOutputDevice(PostToMainThread postToMainThread)
    : post_(std::move(postToMainThread)) {}

AudioOutputDevice::~AudioOutputDevice() = default;

void AudioOutputDevice::setConfigurationChangeHandler(std::function<void()> handler) {
    auto shared = handler ? std::make_shared<std::function<void()>>(std::move(handler)) : nullptr;
    const std::lock_guard lock(handlerMutex_);
    handler_ = std::move(shared);
}

void AudioOutputDevice::notifyConfigurationChange() {
    std::shared_ptr<std::function<void()>> handler;
    {
        const std::lock_guard lock(handlerMutex_);
        handler = handler_;
    }
    if (!handler)
        return;
    if (post_)
        post_([handler] { (*handler)(); });
    else
        (*handler)();
}

} // namespace harlune
