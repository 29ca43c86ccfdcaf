#pragma once

#include "engine/AudioInputDevice.h"

#include <memory>

namespace harlune {

/// Which back end `makeDefaultInputDevice` chooses.
enum class InputBackend { automatic, pipeWire, jack, portAudio };

/// PipeWire when its daemon answers, else JACK when a JACK server answers, else PortAudio (ALSA),
/// as for output. Throws `InputDeviceError` when the chosen back end cannot be set up.
std::unique_ptr<AudioInputDevice> makeDefaultInputDevice(PostToMainThread postToMainThread,
                                                         InputBackend backend = InputBackend::automatic);

} // namespace harlune
