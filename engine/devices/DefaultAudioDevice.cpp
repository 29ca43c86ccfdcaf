#include "engine/devices/DefaultAudioDevice.h"

#include "engine/devices/JackDevice.h"
#include "engine/devices/PipeWireDevice.h"
#include "engine/devices/PortAudioDevice.h"

namespace harlune {

std::unique_ptr<AudioOutputDevice> makeDefaultOutputDevice(PostToMainThread postToMainThread,
                                                           OutputBackend backend) {
    if (backend == OutputBackend::automatic) {
        if (PipeWireDevice::isServerAvailable())
            backend = OutputBackend::pipeWire;
        else if (JackDevice::isServerAvailable())
            backend = OutputBackend::jack;
        else
            backend = OutputBackend::portAudio;
    }
    switch (backend) {
    case OutputBackend::pipeWire:
        return std::make_unique<PipeWireDevice>(std::move(postToMainThread));
    case OutputBackend::jack:
        return std::make_unique<JackDevice>(std::move(postToMainThread));
    default:
        return std::make_unique<PortAudioDevice>(std::move(postToMainThread));
    }
}

} // namespace harlune
