#pragma once

#include "engine/AudioOutputDevice.h"
#include "engine/Realtime.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace harlune {

/// One input device of the audio system as the recorder lists it.
struct InputDevice {
    uint32_t id = 0;  ///< the back end's id (PipeWire's global id, PortAudio's device index)
    std::string uid;  ///< stable across runs (PipeWire's node.name)
    std::string name; ///< what the user reads (node.description)
    int channelCount = 0;
    double sampleRate = 0; ///< Hz; 0 where the server only tells once a stream runs

    friend bool operator==(const InputDevice&, const InputDevice&) = default;
};

/// The format a capture stream delivers: planar float, any channel count.
struct CaptureFormat {
    double sampleRate = 0;
    int channelCount = 0;

    friend bool operator==(const CaptureFormat&, const CaptureFormat&) = default;
};

/// A device that fails to open or goes away. `what()` is the back end's description alone; the
/// recorder puts "Couldn’t open the input: " before it.
class InputDeviceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Receives captured audio on the server's real-time thread. Allocates nothing, blocks on
/// nothing, never throws.
class CaptureSink {
public:
    virtual ~CaptureSink() = default;
    /// `channels` holds one plane of `frameCount` frames per channel of the open format.
    virtual void capture(int frameCount,
                         std::span<const float* const> channels) noexcept HARLUNE_NONBLOCKING = 0;
};

/// The input side of the machine's audio system: list devices, open a capture stream on one,
/// feed a sink while running, and say when the device went away.
///
/// All operations are for the main thread. The loss handler runs on the main thread too, posted
/// through the `PostToMainThread` the device was given (run at once when none was).
class AudioInputDevice {
public:
    explicit AudioInputDevice(PostToMainThread postToMainThread);
    virtual ~AudioInputDevice();
    AudioInputDevice(const AudioInputDevice&) = delete;
    AudioInputDevice& operator=(const AudioInputDevice&) = delete;

    /// A short name for messages ("PipeWire", "PortAudio", "test").
    virtual std::string name() const = 0;
    /// Devices with at least one input channel. Throws `InputDeviceError` when the server fails.
    virtual std::vector<InputDevice> inputDevices() = 0;
    /// The system's default input, if it has one.
    virtual std::optional<uint32_t> defaultInputDevice() = 0;

    /// Closes what is open and opens a capture stream on the device (the default for none).
    /// Returns the format the stream delivers. Throws `InputDeviceError`. Not running afterwards.
    virtual CaptureFormat open(std::optional<uint32_t> deviceID) = 0;
    /// Starts calling `sink`, which must stay alive until `close` or the device's end.
    virtual void start(CaptureSink& sink) = 0;
    /// Stops the callbacks and closes the stream. After it returns the sink is not called.
    virtual void close() = 0;
    virtual bool isRunning() const = 0;

    /// Routes the open input to the system's default output while `on`, or stops doing so.
    /// Returns whether the input is now heard there: false when the back end has no monitor
    /// path (the default) or could not make one. Closing the device ends the monitoring too.
    virtual bool setMonitoring(bool on);

    /// Replaces the handler told (on the main thread) that the open device was lost, with the
    /// server's description.
    void setLossHandler(std::function<void(std::string)> handler);
    /// Replaces the handler told (on the main thread) that devices appeared, left or changed;
    /// `inputDevices` then gives the new list. Back ends that cannot tell never call it.
    void setDevicesChangedHandler(std::function<void()> handler);

protected:
    /// From any thread but the capture callback.
    void notifyLoss(std::string description);
    /// From any thread but the capture callback. A burst of changes reaches the handler once:
    /// nothing more is posted while one notice waits to run.
    void notifyDevicesChanged();

private:
    PostToMainThread post_;
    mutable std::mutex handlerMutex_;
    std::shared_ptr<std::function<void(std::string)>> handler_;
    /// The devices-changed handler and whether a notice waits on the main thread. Shared with the
    /// posted notice, which reads the handler when it runs: one cleared meanwhile is not called.
    struct DevicesChangedSlot {
        std::mutex mutex;
        std::function<void()> handler;
        bool pending = false;
    };
    std::shared_ptr<DevicesChangedSlot> devicesChanged_ = std::make_shared<DevicesChangedSlot>();
};

} // namespace harlune
