#pragma once

#include "engine/AudioOutputDevice.h"

#include <memory>

namespace harlune {

/// Which back end `makeDefaultOutputDevice` chooses.
enum class OutputBackend { automatic, pipeWire, portAudio };

/// PipeWire when its daemon answers, PortAudio (JACK, ALSA) otherwise. Throws `AudioDeviceError`
/// when the chosen back end cannot be set up.
std::unique_ptr<AudioOutputDevice> makeDefaultOutputDevice(PostToMainThread postToMainThread,
                                                           OutputBackend backend = OutputBackend::automatic);

} // namespace harlune
