#include "engine/DeferredInputDevice.h"

namespace harlune {

DeferredInputDevice::DeferredInputDevice(PostToMainThread postToMainThread, Factory factory)
    : AudioInputDevice(std::move(postToMainThread)), factory_(std::move(factory)) {}

DeferredInputDevice::~DeferredInputDevice() {
    if (device_) {
        device_->setLossHandler({});
        device_->setDevicesChangedHandler({});
    }
}

AudioInputDevice& DeferredInputDevice::reached() {
    if (!device_) {
        try {
            device_ = factory_();
        } catch (const InputDeviceError&) {
            throw;
        } catch (const std::exception& error) {
            throw InputDeviceError(error.what());
        }
        // The real device already tells on the main thread; pass it on.
        device_->setLossHandler([this](std::string description) { notifyLoss(std::move(description)); });
        device_->setDevicesChangedHandler([this] { notifyDevicesChanged(); });
    }
    return *device_;
}

std::string DeferredInputDevice::name() const {
    return device_ ? device_->name() : std::string("not connected");
}

std::vector<InputDevice> DeferredInputDevice::inputDevices() {
    return reached().inputDevices();
}

std::optional<uint32_t> DeferredInputDevice::defaultInputDevice() {
    return reached().defaultInputDevice();
}

CaptureFormat DeferredInputDevice::open(std::optional<uint32_t> deviceID) {
    return reached().open(deviceID);
}

void DeferredInputDevice::start(CaptureSink& sink) {
    reached().start(sink);
}

void DeferredInputDevice::close() {
    if (device_)
        device_->close();
}

bool DeferredInputDevice::setMonitoring(bool on) {
    return device_ && device_->setMonitoring(on);
}

bool DeferredInputDevice::isRunning() const {
    return device_ && device_->isRunning();
}

} // namespace harlune
