#pragma once

#include "engine/AudioOutputDevice.h"

#include <memory>

namespace harlune {

/// Which back end `makeDefaultOutputDevice` chooses.
enum class OutputBackend { automatic, pipeWire, jack, portAudio };

/// PipeWire when its daemon answers, else JACK when a JACK server answers, else PortAudio (ALSA). Throws
/// `AudioDeviceError` when the chosen back end cannot be set up.
std::unique_ptr<AudioOutputDevice> makeDefaultOutputDevice(PostToMainThread postToMainThread,
                                                           OutputBackend backend = OutputBackend::automatic);

} // namespace harlune
