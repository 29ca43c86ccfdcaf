#include "engine/devices/TestInputDevice.h"

#include <algorithm>

namespace harlune {

TestInputDevice::TestInputDevice(PostToMainThread postToMainThread)
    : AudioInputDevice(std::move(postToMainThread)) {
    devices_ = {InputDevice{1, "test.input", "Test Input", 2, 48000}};
    default_ = 1;
}

void TestInputDevice::setDevices(std::vector<InputDevice> devices, std::optional<uint32_t> defaultID) {
    devices_ = std::move(devices);
    default_ = defaultID;
}

CaptureFormat TestInputDevice::open(std::optional<uint32_t> deviceID) {
    close();
    ++openCount_;
    if (openFailure_) {
        std::string message = std::move(*openFailure_);
        openFailure_.reset();
        throw InputDeviceError(message);
    }
    const uint32_t id = deviceID.value_or(default_.value_or(devices_.empty() ? 0 : devices_.front().id));
    const auto it =
        std::find_if(devices_.begin(), devices_.end(), [&](const InputDevice& d) { return d.id == id; });
    if (it == devices_.end())
        throw InputDeviceError("no such input device");
    opened_ = id;
    format_ = formatOverride_.value_or(CaptureFormat{it->sampleRate, it->channelCount});
    cursor_.assign(static_cast<size_t>(std::max(format_->channelCount, 0)), nullptr);
    return *format_;
}

void TestInputDevice::start(CaptureSink& sink) {
    sink_ = &sink;
}

void TestInputDevice::close() {
    sink_ = nullptr;
    opened_.reset();
    monitoring_ = false;
}

bool TestInputDevice::setMonitoring(bool on) {
    monitoring_ = on && opened_.has_value() && canMonitor_;
    return monitoring_;
}

void TestInputDevice::deliver(std::span<const float* const> planes, int64_t frames, int framesPerCallback) {
    if (!sink_ || planes.size() > cursor_.size())
        return;
    for (int64_t done = 0; done < frames;) {
        const int chunk = static_cast<int>(std::min<int64_t>(framesPerCallback, frames - done));
        for (size_t c = 0; c < planes.size(); ++c)
            cursor_[c] = planes[c] + done;
        sink_->capture(chunk, std::span<const float* const>(cursor_.data(), planes.size()));
        done += chunk;
    }
}

void TestInputDevice::deliver(const std::vector<std::vector<float>>& planes, int framesPerCallback) {
    std::vector<const float*> pointers;
    for (const auto& plane : planes)
        pointers.push_back(plane.data());
    deliver(pointers, planes.empty() ? 0 : static_cast<int64_t>(planes[0].size()), framesPerCallback);
}

void TestInputDevice::simulateLoss(std::string description) {
    close();
    notifyLoss(std::move(description));
}

void TestInputDevice::simulateDevicesChanged(std::vector<InputDevice> devices,
                                             std::optional<uint32_t> defaultID) {
    setDevices(std::move(devices), defaultID);
    notifyDevicesChanged();
}

} // namespace harlune
