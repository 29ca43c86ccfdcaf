#pragma once

#include "engine/AudioOutputDevice.h"

#include <functional>
#include <memory>

namespace harlune {

/// An output device opened when the first stream is built rather than when it is made, so that a
/// sound system that is missing at launch costs nothing until something plays. A failed opening
/// is thrown from `configure` and tried again at the next one: each play reports the reason
/// until the system answers. Main thread only, like every device.
class DeferredOutputDevice final : public AudioOutputDevice {
public:
    /// Makes the real device; may throw (`AudioDeviceError` for a server that cannot be reached).
    using Factory = std::function<std::unique_ptr<AudioOutputDevice>()>;

    explicit DeferredOutputDevice(Factory factory);
    ~DeferredOutputDevice() override;

    /// The real device's name once it is open.
    std::string name() const override;
    void configure(StreamFormat format, std::shared_ptr<RenderSource> source) override;
    void start() override;
    void pause() override;
    void stop() override;
    bool isRunning() const override;
    std::optional<StreamFormat> format() const override;
    double presentationLatency() const override;

    /// The real device, null until an opening succeeded.
    AudioOutputDevice* device() const { return device_.get(); }

private:
    Factory factory_;
    std::unique_ptr<AudioOutputDevice> device_;
};

} // namespace harlune
