#pragma once

#include "engine/AudioInputDevice.h"

#include <functional>
#include <memory>

namespace harlune {

/// An input device reached at its first use rather than when it is made, so that the editor
/// starts without a sound system: arming then reports why nothing can be recorded. A failed
/// opening throws `InputDeviceError` and is tried again at the next use. Main thread only.
class DeferredInputDevice final : public AudioInputDevice {
public:
    /// Makes the real device; may throw.
    using Factory = std::function<std::unique_ptr<AudioInputDevice>()>;

    DeferredInputDevice(PostToMainThread postToMainThread, Factory factory);
    ~DeferredInputDevice() override;

    std::string name() const override;
    std::vector<InputDevice> inputDevices() override;
    std::optional<uint32_t> defaultInputDevice() override;
    CaptureFormat open(std::optional<uint32_t> deviceID) override;
    void start(CaptureSink& sink) override;
    void close() override;
    bool isRunning() const override;
    bool setMonitoring(bool on) override;

    /// The real device, null until an opening succeeded.
    AudioInputDevice* device() const { return device_.get(); }

private:
    AudioInputDevice& reached();

    Factory factory_;
    std::unique_ptr<AudioInputDevice> device_;
};

} // namespace harlune
