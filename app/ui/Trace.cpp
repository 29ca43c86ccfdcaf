#include "ui/Trace.h"

#include <cstdio>

namespace harlune {

Trace Trace::toStandardError() {
    return Trace([](const QString& text) {
        // Flushed per line: a script waits on each line while the program keeps running.
        std::fprintf(stderr, "harlune: trace: %s\n", qPrintable(text));
        std::fflush(stderr);
    });
}

} // namespace harlune
