#pragma once

#include <stdexcept>
#include <string>

namespace harlune {

/// A sound server or device that cannot be reached or started. `what()` is the text the user
/// reads: "Couldn’t start the audio output: " and the back end's reason.
class AudioDeviceError : public std::runtime_error {
public:
    explicit AudioDeviceError(const std::string& reason)
        : std::runtime_error("Couldn\u2019t start the audio output: " + reason) {}
};

} // namespace harlune
