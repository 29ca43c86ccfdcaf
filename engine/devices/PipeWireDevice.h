#pragma once

#include "engine/AudioOutputDevice.h"

#include <memory>

namespace harlune {

/// Output through PipeWire: one `pw_stream` on a `pw_thread_loop`, planar float at the content's
/// rate with 1 or 2 channels at explicit positions (MONO; FL, FR), so that PipeWire's adapter
/// converts rate and channels for the device. Node "harlune" of application "Harlune". A daemon or
/// device that goes away stops the stream and raises the configuration-change event. From then
/// on `start` and `configure` never wait for the server: the loop thread connects anew, tries
/// again every half second until a server answers, and starts the stream once it is up if it
/// is still wanted.
class PipeWireDevice final : public AudioOutputDevice {
public:
    explicit PipeWireDevice(PostToMainThread postToMainThread);
    ~PipeWireDevice() override;

    /// Whether a PipeWire daemon answers on this session.
    static bool isServerAvailable();

    std::string name() const override { return "PipeWire"; }
    void configure(StreamFormat format, std::shared_ptr<RenderSource> source) override;
    void start() override;
    void pause() override;
    void stop() override;
    bool isRunning() const override;
    std::optional<StreamFormat> format() const override;
    double presentationLatency() const override;

    /// Callbacks since `configure` that came more than one and a half periods after the one
    /// before: each such gap is audio the listener did not get in time.
    int64_t lateCallbacks() const;
    /// Callbacks since `configure`.
    int64_t callbackCount() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace harlune
