#pragma once

#include "engine/AudioInputDevice.h"

#include <optional>
#include <string>
#include <vector>

namespace harlune {

/// An input device without a server, for tests: the test delivers the callbacks itself, on
/// whatever thread it likes, and decides what the device list and the open format are.
class TestInputDevice final : public AudioInputDevice {
public:
    explicit TestInputDevice(PostToMainThread postToMainThread = {});

    std::string name() const override { return "test"; }
    std::vector<InputDevice> inputDevices() override { return devices_; }
    std::optional<uint32_t> defaultInputDevice() override { return default_; }
    CaptureFormat open(std::optional<uint32_t> deviceID) override;
    void start(CaptureSink& sink) override;
    void close() override;
    bool isRunning() const override { return sink_ != nullptr; }
    /// Monitors while a device is open; `close` ends it.
    bool setMonitoring(bool on) override;

    void setDevices(std::vector<InputDevice> devices, std::optional<uint32_t> defaultID);
    /// The format `open` reports for a device, by default its listed rate and channels.
    void setFormatOverride(std::optional<CaptureFormat> format) { formatOverride_ = format; }
    /// Makes the next `open` throw this text (once).
    void failNextOpen(std::string message) { openFailure_ = std::move(message); }

    /// Calls the sink with `planes`, in callbacks of at most `framesPerCallback`. Nothing when
    /// not running. Allocates nothing beyond what the sink does.
    void deliver(std::span<const float* const> planes, int64_t frames, int framesPerCallback);
    /// The same from owned planes (allocates the pointer list).
    void deliver(const std::vector<std::vector<float>>& planes, int framesPerCallback);
    /// The device vanished; the owner hears of it through the loss handler.
    void simulateLoss(std::string description);
    /// Devices came or went: the new list, and the owner hears of it.
    void simulateDevicesChanged(std::vector<InputDevice> devices, std::optional<uint32_t> defaultID);

    /// Whether the open input is routed to the output now.
    bool monitoring() const { return monitoring_; }
    /// A back end without a monitor path refuses every request (the default is to grant them).
    void setCanMonitor(bool can) { canMonitor_ = can; }

    std::optional<uint32_t> openedDevice() const { return opened_; }
    int openCount() const { return openCount_; }

private:
    std::vector<InputDevice> devices_;
    std::optional<uint32_t> default_;
    std::optional<CaptureFormat> formatOverride_;
    std::optional<std::string> openFailure_;
    std::optional<uint32_t> opened_;
    std::optional<CaptureFormat> format_;
    CaptureSink* sink_ = nullptr;
    int openCount_ = 0;
    bool monitoring_ = false;
    bool canMonitor_ = true;
    std::vector<const float*> cursor_;
};

} // namespace harlune
