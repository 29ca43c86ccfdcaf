#include "engine/devices/DefaultInputDevice.h"

#include "engine/devices/JackDevice.h"
#include "engine/devices/JackInputDevice.h"
#include "engine/devices/PipeWireDevice.h"
#include "engine/devices/PipeWireInputDevice.h"
#include "engine/devices/PortAudioInputDevice.h"

namespace harlune {

std::unique_ptr<AudioInputDevice> makeDefaultInputDevice(PostToMainThread postToMainThread,
                                                         InputBackend backend) {
    if (backend == InputBackend::automatic) {
        if (PipeWireDevice::isServerAvailable())
            backend = InputBackend::pipeWire;
        else if (JackDevice::isServerAvailable())
            backend = InputBackend::jack;
        else
            backend = InputBackend::portAudio;
    }
    switch (backend) {
    case InputBackend::pipeWire:
        return std::make_unique<PipeWireInputDevice>(std::move(postToMainThread));
    case InputBackend::jack:
        return std::make_unique<JackInputDevice>(std::move(postToMainThread));
    default:
        return std::make_unique<PortAudioInputDevice>(std::move(postToMainThread));
    }
}

} // namespace harlune
