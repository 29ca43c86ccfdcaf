#pragma once

#include "engine/AudioInputDevice.h"

#include <memory>
#include <string>
#include <vector>

namespace harlune {

/// Capture straight from a JACK server: client "harlune-input" with one input port per channel
/// ("in_1", ...), joined to the server's physical capture ports in order. JACK has one device
/// here, the machine's capture ports (two unjoined ports when it has none, for wiring by hand);
/// the rate is the server's. Monitoring plays the first two inputs through the ports "monitor_1"
/// and "monitor_2", joined to the first two physical playback ports while it is on (a mono input
/// to both). When the server dies the loss handler hears of it; the next `open` or listing tries
/// a new server.
class JackInputDevice final : public AudioInputDevice {
public:
    /// The one device's id.
    static constexpr uint32_t systemID = 0;

    /// Connects to the server (never starting one). Throws `InputDeviceError` when none answers.
    explicit JackInputDevice(PostToMainThread postToMainThread);
    ~JackInputDevice() override;

    std::string name() const override { return "JACK"; }
    std::vector<InputDevice> inputDevices() override;
    std::optional<uint32_t> defaultInputDevice() override { return systemID; }
    CaptureFormat open(std::optional<uint32_t> deviceID) override;
    void start(CaptureSink& sink) override;
    void close() override;
    bool isRunning() const override;
    bool setMonitoring(bool on) override;

    /// The full names of the open stream's ports, inputs then monitors ("harlune-input:in_1", ...,
    /// "harlune-input:monitor_1", ...), empty when closed.
    std::vector<std::string> portNames() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace harlune
