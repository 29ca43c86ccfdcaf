#pragma once

#include <charconv>
#include <cmath>
#include <string>

namespace harlune {

/// A double as the user reads it in messages: the shortest text that reads back as the same
/// value, with ".0" on whole numbers ("44100.0", "0.25", "-2400.0"), "inf", "-inf" or "nan".
inline std::string doubleText(double value) {
    if (std::isnan(value))
        return "nan";
    if (std::isinf(value))
        return value < 0 ? "-inf" : "inf";
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, result.ptr);
    if (text.find_first_of(".e") == std::string::npos)
        text += ".0";
    return text;
}

} // namespace harlune
