#pragma once

#include <exception>
#include <string>

namespace harlune {

/// How the native reader declines a file before it has delivered anything, so that the decoder
/// can hand the file to the tool road. It never leaves `AudioDecoder`.
struct SndFileCannotDecode : std::exception {
    explicit SndFileCannotDecode(std::string text) : message(std::move(text)) {}
    const char* what() const noexcept override { return message.c_str(); }

    std::string message;
};

} // namespace harlune
