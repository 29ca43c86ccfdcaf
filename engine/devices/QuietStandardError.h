#pragma once

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace harlune {

/// Sends standard error to /dev/null for a scope: ALSA and JACK print their probing to it when
/// PortAudio starts or opens a stream, which is noise to the user.
class QuietStandardError {
public:
    QuietStandardError() {
        std::fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (saved_ >= 0 && null >= 0)
            dup2(null, STDERR_FILENO);
        if (null >= 0)
            close(null);
    }
    ~QuietStandardError() {
        if (saved_ >= 0) {
            std::fflush(stderr);
            dup2(saved_, STDERR_FILENO);
            close(saved_);
        }
    }
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;

private:
    int saved_ = -1;
};

} // namespace harlune
