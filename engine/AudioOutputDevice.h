#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

namespace harlune {

/// The stream a source renders: planar 32-bit float at a rate, with 1 or 2 channels. Mixing to
/// the device's channels and converting to its rate belong to the back end.
struct StreamFormat {
    double sampleRate = 0;
    int channelCount = 0;

    friend bool operator==(const StreamFormat&, const StreamFormat&) = default;
};

/// A valid stream format, or `HarluneError.unsupportedFormat` with "playback format <rate> Hz".
StreamFormat makeStreamFormat(double sampleRate, int channelCount);
/// The error that every back end raises for a rate or a channel count it cannot play.
[[noreturn]] void throwPlaybackFormatError(double sampleRate);

/// What a device pulls from, on its audio thread.
class RenderSource {
public:
    virtual ~RenderSource() = default;
    /// Fills `outputs` (one pointer per stream channel, a null pointer to skip one) with
    /// `frameCount` frames. Sets `isSilence` when nothing was rendered. Audio thread: allocates
    /// nothing, blocks on nothing, never throws.
    virtual void render(int frameCount, std::span<float* const> outputs, bool& isSilence) noexcept = 0;
};

/// Runs a task on the owner's thread (the main thread). Called from a device's own threads.
using PostToMainThread = std::function<void(std::function<void()>)>;

/// One output stream of the machine's audio system, seen as the few operations the playback
/// engine needs: build a stream for a format in front of a source, start or resume it, pause it,
/// stop it, report its latency, and say when the device or its format changed under it.
///
/// All operations are for the main thread. The configuration-change handler runs on the main
/// thread too: a back end notices the change on its own thread and posts the handler through the
/// `PostToMainThread` it was given. After such an event the stream is stopped.
class AudioOutputDevice {
public:
    explicit AudioOutputDevice(PostToMainThread postToMainThread);
    virtual ~AudioOutputDevice();
    AudioOutputDevice(const AudioOutputDevice&) = delete;
    AudioOutputDevice& operator=(const AudioOutputDevice&) = delete;

    /// A short name for messages ("PipeWire", "PortAudio", "test").
    virtual std::string name() const = 0;

    /// Stops what runs, and builds a stream of `format` pulling from `source`, which the device
    /// holds until the next `configure` or its end. Throws `HarluneError` (the format error) for a
    /// format it cannot open, `AudioDeviceError` when the server fails. Not running afterwards.
    virtual void configure(StreamFormat format, std::shared_ptr<RenderSource> source) = 0;
    /// Starts or resumes the configured stream, reconnecting one that the server dropped. Throws
    /// `AudioDeviceError` on failure.
    virtual void start() = 0;
    /// Suspends the callback and keeps the stream; `start` resumes it.
    virtual void pause() = 0;
    /// Stops the stream for a change of format; `start` may still restart it.
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;
    /// The format of the configured stream, absent before the first `configure`.
    virtual std::optional<StreamFormat> format() const = 0;
    /// Seconds from the callback to the listener's ear, as well as the back end knows.
    virtual double presentationLatency() const = 0;

    /// Replaces the handler of configuration changes (main thread, after the stream stopped).
    void setConfigurationChangeHandler(std::function<void()> handler);

protected:
    /// From any thread but the audio callback: posts the handler to the main thread.
    void notifyConfigurationChange();

private:
    PostToMainThread post_;
    mutable std::mutex handlerMutex_;
    std::shared_ptr<std::function<void()>> handler_;
};

} // namespace harlune
