#pragma once

#include "engine/AudioOutputDevice.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace harlune {

/// An output device without a server, for tests: the test pulls the callback itself, frame
/// exact, on whatever thread it likes, and sets the clock and the latency the engine sees.
/// Nothing sleeps. Pulls happen only while the device is running, as with a real stream.
class TestAudioDevice final : public AudioOutputDevice {
public:
    /// What one pull produced: one plane per stream channel and the silence flag of each callback.
    struct Capture {
        std::vector<std::vector<float>> planes;
        std::vector<bool> silenceFlags;
    };

    explicit TestAudioDevice(PostToMainThread postToMainThread = {});
    ~TestAudioDevice() override;

    std::string name() const override { return "test"; }
    void configure(StreamFormat format, std::shared_ptr<RenderSource> source) override;
    void start() override;
    void pause() override;
    void stop() override;
    bool isRunning() const override { return running_; }
    std::optional<StreamFormat> format() const override { return format_; }
    double presentationLatency() const override { return latency_; }

    /// Output channels the callback gets; the stream's channel count unless set (a device that
    /// leaves folding to the source).
    void setOutputChannelCount(std::optional<int> count) { outputChannels_ = count; }
    void setPresentationLatency(double seconds) { latency_ = seconds; }
    /// Makes the next `start` throw this error text (once), as a device that is gone.
    void failNextStart(std::string message) { startFailure_ = std::move(message); }
    /// Makes the next `configure` throw this error text (once), as a server that refused the new
    /// stream after the old one was gone: the device is left stopped with the new format and no
    /// stream to play.
    void failNextConfigure(std::string message) { configureFailure_ = std::move(message); }
    /// Seconds since an arbitrary origin; `pullUntil` renders what the clock says has elapsed.
    void setClock(std::function<double()> clock) { clock_ = std::move(clock); }

    /// Renders `frames` frames in callbacks of at most `framesPerCallback`. Nothing when stopped
    /// or paused: the result then holds no frames. Any thread, one at a time.
    Capture pull(int64_t frames, int framesPerCallback);
    /// Renders the frames due between the previous call (or `start`) and the clock's now.
    Capture pullUntilNow(int framesPerCallback);
    /// As `pull`, keeping nothing: once its buffers exist (after the first call with these
    /// sizes) it allocates nothing, so that a test can count what the callback itself allocates.
    void pullAndDiscard(int64_t frames, int framesPerCallback);
    /// The device vanished: the stream stops and the owner hears of it on the main thread.
    void simulateConfigurationChange();

    int64_t framesPulled() const { return framesPulled_; }
    int startCount() const { return startCount_; }
    int configureCount() const { return configureCount_; }

private:
    void prepareBuffers(int framesPerCallback);
    /// One callback into the buffers; returns its silence flag.
    bool renderOnce(int frames);

    std::optional<StreamFormat> format_;
    std::shared_ptr<RenderSource> source_;
    std::optional<int> outputChannels_;
    std::atomic<bool> running_{false};
    double latency_ = 0;
    std::optional<std::string> startFailure_;
    std::optional<std::string> configureFailure_;
    std::function<double()> clock_;
    double clockOrigin_ = 0;
    int64_t framesPulled_ = 0;
    int64_t framesDue_ = 0;
    int startCount_ = 0;
    int configureCount_ = 0;
    std::vector<std::vector<float>> buffers_;
    std::vector<float*> pointers_;
};

} // namespace harlune
