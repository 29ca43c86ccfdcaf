#include "engine/AudioInputDevice.h"

namespace harlune {

AudioInputDevice::AudioInputDevice(PostToMainThread postToMainThread) : post_(std::move(postToMainThread)) {}

AudioInputDevice::~AudioInputDevice() = default;

void AudioInputDevice::setLossHandler(std::function<void(std::string)> handler) {
    std::lock_guard lock(handlerMutex_);
    handler_ = handler ? std::make_shared<std::function<void(std::string)>>(std::move(handler)) : nullptr;
}

void AudioInputDevice::notifyLoss(std::string description) {
    std::shared_ptr<std::function<void(std::string)>> handler;
    {
        std::lock_guard lock(handlerMutex_);
        handler = handler_;
    }
    if (!handler)
        return;
    if (post_)
        post_([handler, description = std::move(description)] { (*handler)(description); });
    else
        (*handler)(description);
}

} // namespace harlune
