#pragma once

#include <cstdint>

namespace harlune::testing {

/// Counts heap allocations made on the calling thread while alive. The counting replaces the
/// global operator new, so it sees every C++ allocation (std::vector growth, make_shared,
/// std::function) but not raw malloc.
class AllocationCounter {
public:
    AllocationCounter();
    ~AllocationCounter();
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    /// Allocations on this thread since construction.
    int64_t count() const;

private:
    int64_t start_;
    bool wasCounting_;
};

/// Allocations counted on this thread so far (only while some counter is alive on it).
int64_t allocationsOnThisThread();

} // namespace harlune::testing
