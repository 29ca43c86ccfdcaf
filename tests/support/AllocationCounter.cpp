#include "support/AllocationCounter.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace harlune::testing {

namespace {
// Per thread, so that another thread's work never shows up in a test's count.
thread_local bool counting = false;
thread_local int64_t allocations = 0;
thread_local int64_t releaseCount = 0;

void* allocate(std::size_t size, std::size_t alignment) {
    if (counting)
        ++allocations;
    if (size == 0)
        size = 1;
    void* pointer = alignment > alignof(std::max_align_t)
                        ? std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment)
                        : std::malloc(size);
    if (pointer == nullptr)
        throw std::bad_alloc();
    return pointer;
}

void release(void* pointer) noexcept {
    if (counting && pointer != nullptr)
        ++releaseCount;
    std::free(pointer);
}
} // namespace

AllocationCounter::AllocationCounter()
    : start_(allocations), releaseStart_(releaseCount), wasCounting_(counting) {
    counting = true;
}
AllocationCounter::~AllocationCounter() {
    counting = wasCounting_;
}
int64_t AllocationCounter::count() const {
    return allocations - start_;
}
int64_t AllocationCounter::releases() const {
    return releaseCount - releaseStart_;
}
int64_t allocationsOnThisThread() {
    return allocations;
}

} // namespace harlune::testing

using harlune::testing::allocate;
using harlune::testing::release;

void* operator new(std::size_t size) {
    return allocate(size, alignof(std::max_align_t));
}
void* operator new[](std::size_t size) {
    return allocate(size, alignof(std::max_align_t));
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return allocate(size, alignof(std::max_align_t));
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* pointer) noexcept {
    release(pointer);
}
void operator delete[](void* pointer) noexcept {
    release(pointer);
}
void operator delete(void* pointer, std::size_t) noexcept {
    release(pointer);
}
void operator delete[](void* pointer, std::size_t) noexcept {
    release(pointer);
}
void operator delete(void* pointer, std::align_val_t) noexcept {
    release(pointer);
}
void operator delete[](void* pointer, std::align_val_t) noexcept {
    release(pointer);
}
void operator delete(void* pointer, std::size_t, std::align_val_t) noexcept {
    release(pointer);
}
void operator delete[](void* pointer, std::size_t, std::align_val_t) noexcept {
    release(pointer);
}
