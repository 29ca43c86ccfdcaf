#pragma once

#include <cstddef>
#include <memory>

namespace harlune {

/// A scratch array of doubles that only grows and keeps no contents across a growth.
class DoubleScratch {
public:
    DoubleScratch() = default;
    explicit DoubleScratch(int capacity) { reserve(capacity); }

    /// Makes room for at least `capacity` doubles; allocates only when it grows.
    void reserve(int capacity) {
        if (capacity <= capacity_)
            return;
        storage_ = std::make_unique_for_overwrite<double[]>(static_cast<size_t>(capacity));
        capacity_ = capacity;
    }

    double* pointer() { return storage_.get(); }
    const double* pointer() const { return storage_.get(); }
    int capacity() const { return capacity_; }

private:
    std::unique_ptr<double[]> storage_;
    int capacity_ = 0;
};

} // namespace harlune
