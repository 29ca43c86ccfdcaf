#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

namespace harlune {

class Subprocess;

/// Drains a child's standard output on a thread of its own into a ring of equal buffers, so that
/// the child goes on writing while the caller works on what came before (on two cores the pipe,
/// the caller's work and the child's own run side by side).
///
/// Each buffer is filled to the brim before it is handed over; only the last one, at the end of
/// the stream, may be shorter (or empty). The caller takes buffers in order with `next` and gives
/// each back with `release` before taking another. Destroying the object (or `stop`) ends the
/// thread without waiting for the child, which stays the caller's to stop.
class ReadAhead {
public:
    struct Buffer {
        std::span<const std::byte> bytes; ///< valid until `release`
        bool ended = false;               ///< nothing follows this buffer
    };

    /// Starts reading `child`'s standard output at once; `child` must be started and must outlive
    /// this object. Memory: `bufferCount` × `bufferBytes`, allocated here. Throws
    /// `HarluneError::decodeFailed` when the thread cannot be made.
    ReadAhead(Subprocess& child, size_t bufferBytes, size_t bufferCount);
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    /// The next buffer, blocking until it is full or the stream has ended. Rethrows the error of
    /// a failed read (`HarluneError::decodeFailed`) once the buffers before it have been taken.
    /// After `stop`, an empty last buffer.
    Buffer next();
    /// Gives the buffer from the last `next` back for reading into.
    void release();
    /// Ends the reading thread and waits for it; idempotent.
    void stop();

private:
    struct Slot {
        std::unique_ptr<std::byte[]> data;
        size_t filled = 0;
        bool ended = false;
        std::exception_ptr error;
    };

    void readLoop();
    /// Fills `slot` from the pipe; false when asked to stop.
    bool fill(Slot& slot);
    bool stopRequested();

    Subprocess& child_;
    size_t bufferBytes_;
    std::vector<Slot> slots_;
    std::chrono::microseconds pause_; ///< after a read that emptied the pipe

    std::mutex lock_;
    std::condition_variable changed_;
    size_t produced_ = 0;   ///< buffers filled, guarded by `lock_`
    size_t consumed_ = 0;   ///< buffers given back, guarded by `lock_`
    bool stopping_ = false; ///< guarded by `lock_`

    std::thread thread_;
};

} // namespace harlune
