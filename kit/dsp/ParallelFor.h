#pragma once

#include "base/FunctionRef.h"

#include <cstdint>

namespace harlune {

/// Calls `body(i)` for every i in 0..<count and returns when all are done: on a pool of threads
/// (one per core, at most `count`) when `concurrent` holds, in a plain loop otherwise. The
/// iterations must be independent. The first exception thrown by any iteration is rethrown
/// after all threads have stopped; iterations not yet started are skipped once one has thrown.
void parallelFor(int64_t count, bool concurrent, FunctionRef<void(int64_t)> body);

} // namespace harlune
