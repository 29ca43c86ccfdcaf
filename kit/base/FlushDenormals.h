#pragma once

#include <cstdint>

#if defined(__SSE__) || defined(__x86_64__)
#include <xmmintrin.h>
#endif

namespace harlune {

/// Sets the floating-point unit to flush denormal results to zero and read denormal operands as
/// zero while alive, and restores the previous mode at the end. A decaying filter or feedback
/// line otherwise drifts into denormals, where each operation can cost a hundred times more,
/// which on the audio thread means a dropout. Copies are not arithmetic: a value passed through
/// unchanged stays as it is. Costs two register reads and writes; allocates nothing.
class FlushDenormals {
public:
    FlushDenormals() noexcept : saved_(read()) { write(saved_ | flushBits); }
    ~FlushDenormals() { write(saved_); }
    FlushDenormals(const FlushDenormals&) = delete;
    FlushDenormals& operator=(const FlushDenormals&) = delete;

private:
#if defined(__SSE__) || defined(__x86_64__)
    static constexpr uint64_t flushBits = 0x8040; // FTZ and DAZ in MXCSR
    static uint64_t read() noexcept {
        return _mm_getcsr();
    }
    static void write(uint64_t mode) noexcept {
        _mm_setcsr(static_cast<unsigned>(mode));
    }
#elif defined(__aarch64__)
    static constexpr uint64_t flushBits = uint64_t{1} << 24; // FZ in FPCR
    static uint64_t read() noexcept {
        uint64_t mode = 0;
        asm volatile("mrs %0, fpcr" : "=r"(mode));
        return mode;
    }
    static void write(uint64_t mode) noexcept {
        asm volatile("msr fpcr, %0" : : "r"(mode));
    }
#else
    static constexpr uint64_t flushBits = 0;
    static uint64_t read() noexcept {
        return 0;
    }
    static void write(uint64_t) noexcept {}
#endif

    uint64_t saved_;
};

} // namespace harlune
