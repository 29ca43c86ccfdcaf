#pragma once

#include <cstdint>

namespace harlune::testing {

/// Counts heap allocations and releases made on the calling thread while alive. The counting
/// replaces the global operator new and delete, so it sees every C++ allocation and release
/// (std::vector growth, make_shared, the last reference of a shared_ptr) but not raw malloc.
class AllocationCounter {
public:
    AllocationCounter();
    ~AllocationCounter();
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    /// Allocations on this thread since construction.
    int64_t count() const;
    /// Releases of memory (non-null deletes) on this thread since construction.
    int64_t releases() const;

private:
    int64_t start_;
    int64_t releaseStart_;
    bool wasCounting_;
};

/// Allocations counted on this thread so far (only while some counter is alive on it).
int64_t allocationsOnThisThread();

} // namespace harlune::testing
