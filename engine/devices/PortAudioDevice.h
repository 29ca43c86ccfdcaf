#pragma once

#include "engine/AudioOutputDevice.h"

#include <memory>

namespace harlune {

/// Output through PortAudio (JACK when a JACK server runs, ALSA otherwise), for systems where no
/// PipeWire daemon answers. It always opens what the device accepts: the content's rate when the
/// device takes it, else the device's own rate with the conversion done here; and two outputs
/// whenever the device has them, a mono stream being spread to both (JACK would put it on the
/// left only). ALSA's and JACK's start-up chatter on standard error is kept quiet.
class PortAudioDevice final : public AudioOutputDevice {
public:
    explicit PortAudioDevice(PostToMainThread postToMainThread);
    ~PortAudioDevice() override;

    std::string name() const override { return "PortAudio"; }
    void configure(StreamFormat format, std::shared_ptr<RenderSource> source) override;
    void start() override;
    void pause() override;
    void stop() override;
    bool isRunning() const override;
    std::optional<StreamFormat> format() const override;
    double presentationLatency() const override;

    /// The rate the device was opened at (0 before `configure`), and its host API's name.
    double deviceRate() const;
    std::string hostApiName() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace harlune
