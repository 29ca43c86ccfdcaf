#include "engine/AudioInputDevice.h"

namespace harlune {

AudioInputDevice::AudioInputDevice(PostToMainThread postToMainThread) : post_(std::move(postToMainThread)) {}

AudioInputDevice::~AudioInputDevice() {
    setDevicesChangedHandler({}); // a notice still on its way to the main thread finds no handler
}

void AudioInputDevice::setLossHandler(std::function<void(std::string)> handler) {
    std::lock_guard lock(handlerMutex_);
    handler_ = handler ? std::make_shared<std::function<void(std::string)>>(std::move(handler)) : nullptr;
}

bool AudioInputDevice::setMonitoring(bool) {
    return false;
}

void AudioInputDevice::setDevicesChangedHandler(std::function<void()> handler) {
    std::lock_guard lock(devicesChanged_->mutex);
    devicesChanged_->handler = std::move(handler);
}

void AudioInputDevice::notifyDevicesChanged() {
    const auto run = [](DevicesChangedSlot& slot) {
        std::function<void()> handler;
        {
            std::lock_guard lock(slot.mutex);
            slot.pending = false;
            handler = slot.handler;
        }
        if (handler)
            handler();
    };
    {
        std::lock_guard lock(devicesChanged_->mutex);
        if (!devicesChanged_->handler || devicesChanged_->pending)
            return;
        devicesChanged_->pending = true;
    }
    if (post_)
        post_([slot = devicesChanged_, run] { run(*slot); });
    else
        run(*devicesChanged_);
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
