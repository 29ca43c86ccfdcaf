#include "base/Precondition.h"

#include <cstdio>
#include <cstdlib>

namespace harlune {

void preconditionFailure(std::string_view message, std::source_location where) {
    std::fprintf(stderr, "harlune: precondition failed: %.*s (%s:%u, %s)\n", static_cast<int>(message.size()),
                 message.data(), where.file_name(), static_cast<unsigned>(where.line()),
                 where.function_name());
    std::fflush(stderr);
    std::abort();
}

} // namespace harlune
