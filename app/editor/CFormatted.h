#pragma once

#include <QString>
#include <cstdio>

namespace harlune {

/// A number put into a `printf` format by the C library, whose rounding (an exact half goes to
/// even) `QString::asprintf` does not share. For short names and figures only.
template <class... Values> QString cFormatted(const char* format, Values... values) {
    char text[128];
    std::snprintf(text, sizeof text, format, values...);
    return QString::fromUtf8(text);
}

} // namespace harlune
