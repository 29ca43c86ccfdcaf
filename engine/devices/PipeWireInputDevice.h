#pragma once

#include "engine/AudioInputDevice.h"

#include <memory>

namespace harlune {

/// Capture from PipeWire: the devices are the registry's nodes of media class Audio/Source and
/// Audio/Source/Virtual, the default comes from the "default" metadata, and a capture stream
/// delivers planar float at the rate the server negotiates. A device's channel count comes from the
/// formats its node offers. Devices that come, go or change are told to the devices-changed
/// handler, which therefore needs a `PostToMainThread`: run on the loop's thread it could not ask
/// for the new list. Monitoring loads PipeWire's loopback module from the open source to the
/// default sink.
class PipeWireInputDevice final : public AudioInputDevice {
public:
    /// Connects to the server. Throws `InputDeviceError` when no daemon answers.
    explicit PipeWireInputDevice(PostToMainThread postToMainThread);
    ~PipeWireInputDevice() override;

    std::string name() const override { return "PipeWire"; }
    std::vector<InputDevice> inputDevices() override;
    std::optional<uint32_t> defaultInputDevice() override;
    CaptureFormat open(std::optional<uint32_t> deviceID) override;
    void start(CaptureSink& sink) override;
    void close() override;
    bool isRunning() const override;
    bool setMonitoring(bool on) override;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace harlune
