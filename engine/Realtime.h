#pragma once

#include <atomic>
#include <thread>

// Marks functions of the audio thread for clang's RealtimeSanitizer (after `noexcept`), which
// then flags any allocation, lock or system call made inside them or their callees. Other
// compilers see nothing.
#if defined(__clang__) && defined(__has_cpp_attribute)
#if __has_cpp_attribute(clang::nonblocking)
#define HARLUNE_NONBLOCKING [[clang::nonblocking]]
#endif
#endif
#ifndef HARLUNE_NONBLOCKING
#define HARLUNE_NONBLOCKING
#endif

namespace harlune {

/// A lock on one atomic flag. The audio thread only ever tries it; the main thread may wait for
/// it, which costs a few spins since the audio side holds it for a handful of loads. Unlike
/// std::mutex, neither side ever enters the kernel: a mutex's unlock may wake a waiter through a
/// system call even after a successful try_lock. Sequentially consistent, so that together
/// with `RenderState::callbackEpoch` the main thread can tell whether a callback still holds
/// what it replaced.
class SpinTryLock {
public:
    bool tryLock() noexcept { return !flag_.test_and_set(); }

    /// Main thread only.
    void lock() noexcept {
        while (flag_.test_and_set())
            while (flag_.test(std::memory_order_relaxed))
                std::this_thread::yield();
    }

    void unlock() noexcept { flag_.clear(); }

private:
    std::atomic_flag flag_;
};

/// Holds a `SpinTryLock` for a scope (blocking acquire: main thread only).
class SpinLockGuard {
public:
    explicit SpinLockGuard(SpinTryLock& lock) noexcept : lock_(lock) { lock_.lock(); }
    ~SpinLockGuard() { lock_.unlock(); }
    SpinLockGuard(const SpinLockGuard&) = delete;
    SpinLockGuard& operator=(const SpinLockGuard&) = delete;

private:
    SpinTryLock& lock_;
};

} // namespace harlune
