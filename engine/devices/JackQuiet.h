#pragma once

#include <jack/jack.h>
#include <mutex>

namespace harlune {

/// libjack prints every failed attempt to reach a server on standard error; to the user that is
/// noise, and the failure reaches them as an error anyway. Once per process.
inline void quietJack() {
    static std::once_flag once;
    std::call_once(once, [] {
        jack_set_error_function([](const char*) {});
        jack_set_info_function([](const char*) {});
    });
}

} // namespace harlune
