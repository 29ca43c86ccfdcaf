#include "engine/Recorder.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>

namespace harlune {

namespace {

constexpr double silentDB = -120;
constexpr double floorDB = -144;
/// Per 1/30 s tick: 36 dB per second of fall.
constexpr double fallPerTick = 1.2;
/// The tap wakes this often; a 4096-frame block lasts 85 ms at 48 kHz.
constexpr auto tapInterval = std::chrono::milliseconds(20);

double decibels(float peak) {
    if (peak <= 0)
        return floorDB;
    return std::max(floorDB, 20.0 * std::log10(static_cast<double>(peak)));
}

} // namespace

Recorder::Recorder(std::shared_ptr<AudioInputDevice> device, Options options)
    : device_(std::move(device)), options_(std::move(options)) {
    if (!options_.now)
        options_.now = [] {
            return std::time(nullptr);
        };
    device_->setLossHandler([this](std::string description) { deviceLost(description); });
    device_->setDevicesChangedHandler([this] { devicesChanged(); });
}

Recorder::~Recorder() {
    device_->setLossHandler({});
    device_->setDevicesChangedHandler({});
    closeDevice();
}

void Recorder::notify() {
    if (changed_)
        changed_();
}

void Recorder::fail(const std::string& description) {
    errorMessage_ = "Couldn\u2019t open the input: " + description;
    closeDevice();
    buffer_.reset();
    isArmed_ = false;
    notify();
}

void Recorder::arm() {
    try {
        devices_ = device_->inputDevices();
    } catch (const std::exception& error) {
        fail(error.what());
        return;
    }
    if (devices_.empty()) {
        errorMessage_ = "No audio input devices found.";
        isArmed_ = false;
        notify();
        return;
    }
    const auto listed = [this](std::optional<uint32_t> id) {
        return id && std::any_of(devices_.begin(), devices_.end(),
                                 [&](const InputDevice& d) { return d.id == *id; });
    };
    if (!listed(deviceID_)) {
        const auto fallback = device_->defaultInputDevice();
        deviceID_ = listed(fallback) ? fallback : std::optional<uint32_t>(devices_.front().id);
    }
    isArmed_ = true;
    rearm();
}

void Recorder::rearm() {
    closeDevice();
    bool heard = false;
    try {
        const CaptureFormat format = device_->open(deviceID_);
        if (!(format.sampleRate > 0) || format.channelCount <= 0)
            throw InputDeviceError("the input device isn\u2019t delivering audio");
        choices_ = InputChoice::choices(format.channelCount);
        if (!inputChoice_ || std::find(choices_.begin(), choices_.end(), *inputChoice_) == choices_.end()) {
            const size_t wanted = static_cast<size_t>(std::min(format.channelCount, 2));
            const auto it = std::find_if(choices_.begin(), choices_.end(),
                                         [&](const InputChoice& c) { return c.channels.size() == wanted; });
            inputChoice_ = it != choices_.end() ? *it : choices_.front();
        }
        buffer_ =
            std::make_unique<TakeBuffer>(format.channelCount, inputChoice_->channels, format.sampleRate);
        deviceSampleRate_ = format.sampleRate;
        device_->start(*buffer_);
        heard = device_->setMonitoring(monitoring_);
    } catch (const std::exception& error) {
        fail(error.what());
        return;
    }
    errorMessage_.reset();
    followMonitor(heard);
    startTap();
    notify();
}

void Recorder::disarm() {
    if (isRecording_)
        stop();
    closeDevice();
    buffer_.reset();
    peaksDB_.clear();
    clipped_.clear();
    isArmed_ = false;
    notify();
}

void Recorder::closeDevice() {
    // The device first: after `close` returns no callback touches the buffer.
    device_->close();
    stopTap();
}

void Recorder::toggle() {
    if (isRecording_)
        stop();
    else if (isArmed_ && buffer_)
        start();
    else
        arm();
}

void Recorder::start() {
    if (!buffer_ || !inputChoice_ || isRecording_)
        return;
    safetyPath_.reset();
    if (options_.recordingsFolder)
        safetyPath_ = *options_.recordingsFolder / takeFileName(options_.now());
    buffer_->resetClips();
    buffer_->beginCapture(safetyPath_);
    if (client_)
        client_->beginRecording(buffer_->sampleRate(), buffer_->outputChannels());
    isRecording_ = true;
    elapsedFrames_ = 0;
    tick_ = 0;
    notify();
}

void Recorder::stop() {
    if (!buffer_ || !isRecording_)
        return;
    isRecording_ = false;
    std::optional<AudioContent> take = buffer_->endCapture();
    elapsedFrames_ = take ? take->frameCount() : 0;
    // The safety file stays: only the client knows when the take is kept elsewhere.
    if (client_)
        client_->finishRecording(std::move(take));
    notify();
}

void Recorder::resetClipIndicators() {
    if (buffer_)
        buffer_->resetClips();
    std::fill(clipped_.begin(), clipped_.end(), false);
    notify();
}

void Recorder::poll() {
    if (!buffer_)
        return;
    const TakeBuffer::MeterReading reading = buffer_->readMeters();
    if (peaksDB_.size() != reading.peaks.size())
        peaksDB_.assign(reading.peaks.size(), silentDB);
    for (size_t c = 0; c < peaksDB_.size(); ++c)
        peaksDB_[c] = std::max(decibels(reading.peaks[c]), peaksDB_[c] - fallPerTick);
    clipped_ = reading.clips;
    if (isRecording_) {
        elapsedFrames_ = buffer_->captured();
        ++tick_;
        if (tick_ % 3 == 0) {
            std::optional<AudioContent> snapshot = buffer_->snapshot();
            if (snapshot && client_)
                client_->updateLiveTake(*snapshot);
        }
    }
    notify();
}

void Recorder::pumpTap() {
    if (buffer_)
        buffer_->drain(false);
}

void Recorder::setDeviceID(std::optional<uint32_t> id) {
    deviceID_ = id;
    if (isArmed_ && !isRecording_)
        rearm();
    else
        notify();
}

void Recorder::setInputChoice(std::optional<InputChoice> choice) {
    inputChoice_ = std::move(choice);
    if (isArmed_ && !isRecording_)
        rearm();
    else
        notify();
}

void Recorder::setMonitoring(bool on) {
    monitoring_ = on;
    if (isArmed_ && isRecording_)
        followMonitor(device_->setMonitoring(on)); // a take runs on: the monitor path alone changes
    if (isArmed_ && !isRecording_)
        rearm();
    else
        notify();
}

void Recorder::followMonitor(bool heard) {
    if (!monitoring_ || heard) {
        if (errorMessage_ == cannotMonitor)
            errorMessage_.reset();
        return;
    }
    // A back end without a monitor path: the switch shows what is heard, and the bar says why.
    monitoring_ = false;
    errorMessage_ = cannotMonitor;
}

void Recorder::deviceLost(const std::string& description) {
    if (!isArmed_)
        return;
    if (isRecording_)
        stop();
    fail(description);
}

void Recorder::devicesChanged() {
    try {
        devices_ = device_->inputDevices();
    } catch (const std::exception&) {
        return; // the server's own failure reaches the loss handler
    }
    const bool present = std::any_of(devices_.begin(), devices_.end(),
                                     [this](const InputDevice& d) { return d.id == deviceID_; });
    if (isArmed_ && !present) {
        deviceLost("the input device is gone");
        return;
    }
    notify();
}

void Recorder::startTap() {
    if (options_.tap != TapDriving::thread || !buffer_)
        return;
    tapStopping_ = false;
    TakeBuffer* buffer = buffer_.get();
    tapThread_ = std::thread([this, buffer] {
        std::unique_lock lock(tapMutex_);
        while (!tapStopping_) {
            lock.unlock();
            buffer->drain(false);
            lock.lock();
            tapWake_.wait_for(lock, tapInterval, [this] { return tapStopping_; });
        }
    });
}

void Recorder::stopTap() {
    if (!tapThread_.joinable())
        return;
    {
        std::lock_guard lock(tapMutex_);
        tapStopping_ = true;
    }
    tapWake_.notify_all();
    tapThread_.join();
}

} // namespace harlune
