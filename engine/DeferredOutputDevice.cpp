#include "engine/DeferredOutputDevice.h"

#include "base/Precondition.h"
#include "engine/AudioDeviceError.h"

namespace harlune {

// The real device posts its events to the main thread itself; they are passed on from there.
DeferredOutputDevice::DeferredOutputDevice(Factory factory)
    : AudioOutputDevice({}), factory_(std::move(factory)) {
    HARLUNE_PRECONDITION(factory_ != nullptr, "a deferred device needs a factory");
}

DeferredOutputDevice::~DeferredOutputDevice() {
    if (device_)
        device_->setConfigurationChangeHandler(nullptr);
}

std::string DeferredOutputDevice::name() const {
    return device_ ? device_->name() : "not yet opened";
}

void DeferredOutputDevice::configure(StreamFormat format, std::shared_ptr<RenderSource> source) {
    if (!device_) {
        std::unique_ptr<AudioOutputDevice> device = factory_();
        if (!device)
            throw AudioDeviceError("no output device");
        device->setConfigurationChangeHandler([this] { notifyConfigurationChange(); });
        device_ = std::move(device);
    }
    device_->configure(format, std::move(source));
}

void DeferredOutputDevice::start() {
    if (!device_)
        throw AudioDeviceError("no output device");
    device_->start();
}

void DeferredOutputDevice::pause() {
    if (device_)
        device_->pause();
}

void DeferredOutputDevice::stop() {
    if (device_)
        device_->stop();
}

bool DeferredOutputDevice::isRunning() const {
    return device_ && device_->isRunning();
}

std::optional<StreamFormat> DeferredOutputDevice::format() const {
    return device_ ? device_->format() : std::nullopt;
}

double DeferredOutputDevice::presentationLatency() const {
    return device_ ? device_->presentationLatency() : 0;
}

} // namespace harlune
