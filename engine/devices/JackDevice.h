#pragma once

#include "engine/AudioOutputDevice.h"

#include <memory>

namespace harlune {

/// Output straight to a JACK server: client "harlune", one output port per stream channel, joined
/// to the first physical playback ports (a mono port to both). JACK runs at the server's rate, so
/// content at another rate is converted here. When the server dies the stream stops and the
/// configuration-change event is raised; from then on `start` and `configure` never wait for a
/// server: a thread of the device closes the dead client, tries to open a new one every half
/// second while sound is wanted, and starts it once it is up.
class JackDevice final : public AudioOutputDevice {
public:
    explicit JackDevice(PostToMainThread postToMainThread);
    ~JackDevice() override;

    /// Whether a JACK server answers (one is never started for the question).
    static bool isServerAvailable();

    std::string name() const override { return "JACK"; }
    void configure(StreamFormat format, std::shared_ptr<RenderSource> source) override;
    void start() override;
    void pause() override;
    void stop() override;
    bool isRunning() const override;
    std::optional<StreamFormat> format() const override;
    double presentationLatency() const override;

    /// The server's rate of the current client, 0 while there is none.
    double deviceRate() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace harlune
