#pragma once

#include "base/FunctionRef.h"

#include <cstdint>
#include <thread>

namespace harlune {

/// Calls `body(i)` for every i in 0..<count and returns when all are done: on a pool of threads
/// (one per core, at most `count`) when `concurrent` holds, in a plain loop otherwise. The
/// iterations must be independent. The first exception thrown by any iteration is rethrown
/// after all threads have stopped; iterations not yet started are skipped once one has thrown.
/// A system that refuses a new thread only makes it slower: the iterations are shared among the
/// threads that did start, the calling thread among them.
void parallelFor(int64_t count, bool concurrent, FunctionRef<void(int64_t)> body);

/// Starts a thread that runs `work` (which outlives the thread); throws `std::system_error`, as
/// std::thread's constructor does, when the system has no thread to give.
using ThreadStarter = FunctionRef<std::thread(FunctionRef<void()> work)>;

/// The pool of `parallelFor` with `workers` threads in all, the calling one included, the
/// others started through `startThread`.
void parallelFor(int64_t count, int workers, FunctionRef<void(int64_t)> body, ThreadStarter startThread);

} // namespace harlune
