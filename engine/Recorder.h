#pragma once

#include "core/AudioContent.h"
#include "engine/AudioInputDevice.h"
#include "engine/InputChoice.h"
#include "engine/TakeBuffer.h"

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace harlune {

/// Where takes go: the editor model (or the command line). Main thread.
class RecorderClient {
public:
    virtual ~RecorderClient() = default;
    /// A take starts: playback stops, and the document prepares for a take of this format.
    virtual void beginRecording(double sampleRate, int channelCount) = 0;
    /// The take so far, ten times a second; its blocks are shared, not copied.
    virtual void updateLiveTake(const AudioContent& take) = 0;
    /// The take ended; absent when no capture ran. The take's safety file (the recorder's
    /// `safetyPath`, until the next start) is left for the client to remove with
    /// `removeSafetyFile` once the take is kept elsewhere.
    virtual void finishRecording(std::optional<AudioContent> take) = 0;
};

/// Captures audio from an input device into takes. Arming opens the device and runs the meters;
/// starting writes a take into memory (for the live display) and into a safety file on disk.
///
/// Threads: every member is for the main thread. The device calls the take buffer's capture on
/// its real-time thread, which only fills a ring; a tap thread of the recorder drains the ring
/// into the take. With `TapDriving::manual` there is no tap thread and the owner calls `pumpTap`
/// (tests, frame exact). `poll` is the owner's 30 Hz timer while armed.
class Recorder {
public:
    enum class TapDriving { thread, manual };

    struct Options {
        TapDriving tap = TapDriving::thread;
        /// The safety files' folder; none keeps takes in memory alone.
        std::optional<std::filesystem::path> recordingsFolder;
        /// The wall clock for take names.
        std::function<std::time_t()> now;
    };

    Recorder(std::shared_ptr<AudioInputDevice> device, Options options);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    void setClient(RecorderClient* client) { client_ = client; }
    /// Told (main thread) after every change of the observable state.
    void setChangeHandler(std::function<void()> handler) { changed_ = std::move(handler); }

    void arm();
    void rearm();
    void disarm();
    /// Starts a take when armed and idle, stops when recording, arms otherwise.
    void toggle();
    void start();
    void stop();
    void resetClipIndicators();
    /// The meter and live-take timer, 30 times a second while armed.
    void poll();
    /// Manual tap only: moves every full block waiting in the ring into the take.
    void pumpTap();

    void setDeviceID(std::optional<uint32_t> id);
    void setInputChoice(std::optional<InputChoice> choice);
    void setMonitoring(bool on);

    bool isArmed() const { return isArmed_; }
    bool isRecording() const { return isRecording_; }
    const std::vector<InputDevice>& devices() const { return devices_; }
    std::optional<uint32_t> deviceID() const { return deviceID_; }
    std::optional<InputChoice> inputChoice() const { return inputChoice_; }
    std::vector<InputChoice> inputChoices() const { return choices_; }
    bool monitoring() const { return monitoring_; }
    /// The message while armed when the back end cannot route the input to the output.
    static constexpr const char* cannotMonitor =
        "This audio system can\u2019t play the input while recording.";
    const std::vector<double>& peaksDB() const { return peaksDB_; }
    const std::vector<bool>& clipped() const { return clipped_; }
    int64_t elapsedFrames() const { return elapsedFrames_; }
    double deviceSampleRate() const { return deviceSampleRate_; }
    const std::optional<std::string>& errorMessage() const { return errorMessage_; }
    /// The safety file of the current or last take.
    const std::optional<std::filesystem::path>& safetyPath() const { return safetyPath_; }
    int tick() const { return tick_; }
    /// The current take buffer (for its ring's overrun count and the safety file's state).
    const TakeBuffer* buffer() const { return buffer_.get(); }

private:
    void fail(const std::string& description);
    /// Takes the device's answer to a monitoring request (`heard`): a refused monitor turns the
    /// switch off and leaves `cannotMonitor` as the message; a kept one clears that message.
    void followMonitor(bool heard);
    void closeDevice();
    void startTap();
    void stopTap();
    void deviceLost(const std::string& description);
    /// The device list changed: re-read it; an armed device that left ends as a lost one does.
    void devicesChanged();
    void notify();

    std::shared_ptr<AudioInputDevice> device_;
    Options options_;
    RecorderClient* client_ = nullptr;
    std::function<void()> changed_;

    bool isArmed_ = false;
    bool isRecording_ = false;
    std::vector<InputDevice> devices_;
    std::optional<uint32_t> deviceID_;
    std::optional<InputChoice> inputChoice_;
    std::vector<InputChoice> choices_;
    bool monitoring_ = false;
    std::vector<double> peaksDB_;
    std::vector<bool> clipped_;
    int64_t elapsedFrames_ = 0;
    double deviceSampleRate_ = 0;
    std::optional<std::string> errorMessage_;
    std::unique_ptr<TakeBuffer> buffer_;
    int tick_ = 0;
    std::optional<std::filesystem::path> safetyPath_;

    std::thread tapThread_;
    std::mutex tapMutex_;
    std::condition_variable tapWake_;
    bool tapStopping_ = false;
};

} // namespace harlune
