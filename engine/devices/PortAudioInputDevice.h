#pragma once

#include "engine/AudioInputDevice.h"

#include <memory>

namespace harlune {

/// Capture through PortAudio (ALSA), for systems where neither a PipeWire daemon nor a JACK
/// server answers. Devices are PortAudio's with inputs; ids are PortAudio's device indices, valid
/// for the life of this object. The stream is planar float at the device's default rate. A
/// stream that ends without being asked to, or whose callbacks stop coming (a device unplugged,
/// a JACK server gone), reaches the loss handler; after a JACK server's end PortAudio cannot
/// open anything more in this process.
/// ALSA's start-up chatter on standard error is kept quiet.
class PortAudioInputDevice final : public AudioInputDevice {
public:
    /// Throws `InputDeviceError` when PortAudio cannot start.
    explicit PortAudioInputDevice(PostToMainThread postToMainThread);
    ~PortAudioInputDevice() override;

    std::string name() const override { return "PortAudio"; }
    std::vector<InputDevice> inputDevices() override;
    std::optional<uint32_t> defaultInputDevice() override;
    CaptureFormat open(std::optional<uint32_t> deviceID) override;
    void start(CaptureSink& sink) override;
    void close() override;
    bool isRunning() const override;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace harlune
