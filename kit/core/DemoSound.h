#pragma once

#include "core/AudioContent.h"

namespace harlune {

/// A built-in sound for trying the tools without a file: 4 seconds of a stereo A-major chord at
/// 48 kHz, fading in and out, with the right channel a little quieter than the left.
AudioContent makeDemoSound();

} // namespace harlune
