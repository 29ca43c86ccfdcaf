#pragma once

#include <source_location>
#include <string_view>

namespace harlune {

/// Stops the program with a message naming the broken condition and where it was checked.
/// Used for programmer's errors (a bad range, mismatched channel counts): these are never
/// recoverable failures, and the check stays on in every build type.
[[noreturn]] void preconditionFailure(std::string_view message,
                                      std::source_location where = std::source_location::current());

} // namespace harlune

#define HARLUNE_PRECONDITION(condition, message)                                                             \
    do {                                                                                                     \
        if (!(condition)) [[unlikely]]                                                                       \
            ::harlune::preconditionFailure(message);                                                         \
    } while (false)

// The same check for the audio path, where even a compare per call is weighed: on in debug
// builds only. For conditions that the always-on checks around it make unlikely to be broken.
#ifdef NDEBUG
#define HARLUNE_DEBUG_PRECONDITION(condition, message) ((void)0)
#else
#define HARLUNE_DEBUG_PRECONDITION(condition, message) HARLUNE_PRECONDITION(condition, message)
#endif
