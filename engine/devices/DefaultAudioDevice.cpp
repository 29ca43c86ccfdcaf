#include "engine/devices/DefaultAudioDevice.h"

#include "engine/devices/PipeWireDevice.h"
#include "engine/devices/PortAudioDevice.h"

namespace harlune {

std::unique_ptr<AudioOutputDevice> makeDefaultOutputDevice(PostToMainThread postToMainThread,
                                                           OutputBackend backend) {
    if (backend == OutputBackend::automatic)
        backend = PipeWireDevice::isServerAvailable() ? OutputBackend::pipeWire : OutputBackend::portAudio;
    if (backend == OutputBackend::pipeWire)
        return std::make_unique<PipeWireDevice>(std::move(postToMainThread));
    return std::make_unique<PortAudioDevice>(std::move(postToMainThread));
}

} // namespace harlune
