#pragma once

#include <pipewire/thread-loop.h>

namespace harlune {

/// Holds a PipeWire thread loop's lock for a scope.
class PipeWireLoopLock {
public:
    explicit PipeWireLoopLock(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
    ~PipeWireLoopLock() { pw_thread_loop_unlock(loop_); }
    PipeWireLoopLock(const PipeWireLoopLock&) = delete;
    PipeWireLoopLock& operator=(const PipeWireLoopLock&) = delete;

private:
    pw_thread_loop* loop_;
};

} // namespace harlune
