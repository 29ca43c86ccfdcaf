#pragma once

#include <atomic>
#include <bit>
#include <cstdint>

namespace harlune {

/// Shared between the thread that starts a long job and the job itself, with no lock and no
/// callback: the worker stores the fraction done (0...1) and polls the flag; the starter reads the
/// fraction and sets the flag. The fraction is kept as the bit pattern of a double.
struct ProgressToken {
    std::atomic<uint64_t> bits{0};
    std::atomic<bool> cancelFlag{false};

    void setFraction(double fraction) {
        bits.store(std::bit_cast<uint64_t>(fraction), std::memory_order_relaxed);
    }
    double fraction() const { return std::bit_cast<double>(bits.load(std::memory_order_relaxed)); }
    void cancel() { cancelFlag.store(true, std::memory_order_relaxed); }
    bool isCancelled() const { return cancelFlag.load(std::memory_order_relaxed); }
};

} // namespace harlune
