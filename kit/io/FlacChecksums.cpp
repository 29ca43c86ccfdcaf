#include "io/FlacChecksums.h"

#include <array>
#include <cstddef>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define HARLUNE_CRC_FOLDS 1
#endif

namespace harlune {

namespace {

constexpr std::array<uint8_t, 256> makeCrc8Table() {
    std::array<uint8_t, 256> table{};
    for (int byte = 0; byte < 256; ++byte) {
        auto crc = static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<uint8_t>((crc & 0x80) ? (crc << 1) ^ 0x07 : crc << 1);
        table[static_cast<size_t>(byte)] = crc;
    }
    return table;
}

/// Row k gives the CRC-16 of a byte followed by k zero bytes, so that eight bytes fold in at
/// once.
constexpr std::array<std::array<uint16_t, 256>, 8> makeCrc16Tables() {
    std::array<std::array<uint16_t, 256>, 8> tables{};
    for (int byte = 0; byte < 256; ++byte) {
        auto crc = static_cast<uint16_t>(byte << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x8005 : crc << 1);
        tables[0][static_cast<size_t>(byte)] = crc;
    }
    for (size_t k = 1; k < 8; ++k)
        for (size_t byte = 0; byte < 256; ++byte) {
            const uint16_t previous = tables[k - 1][byte];
            tables[k][byte] = static_cast<uint16_t>((previous << 8) ^ tables[0][previous >> 8]);
        }
    return tables;
}

constexpr auto crc8Table = makeCrc8Table();
constexpr auto crc16Tables = makeCrc16Tables();

uint16_t crc16Bytes(uint32_t crc, const uint8_t* data, size_t size) {
    size_t i = 0;
    for (; i + 8 <= size; i += 8) {
        crc = crc16Tables[7][(crc >> 8) ^ data[i]] ^ crc16Tables[6][(crc & 0xff) ^ data[i + 1]] ^
              crc16Tables[5][data[i + 2]] ^ crc16Tables[4][data[i + 3]] ^ crc16Tables[3][data[i + 4]] ^
              crc16Tables[2][data[i + 5]] ^ crc16Tables[1][data[i + 6]] ^ crc16Tables[0][data[i + 7]];
    }
    for (; i < size; ++i)
        crc = ((crc << 8) ^ crc16Tables[0][(crc >> 8) ^ data[i]]) & 0xffff;
    return static_cast<uint16_t>(crc);
}

#ifdef HARLUNE_CRC_FOLDS

/// x^n modulo the CRC-16 polynomial times x^16. A remainder by that 32-bit polynomial holds the
/// CRC-16 remainder in its top half, and 32-bit constants suit the carry-less multiply.
constexpr uint64_t powerModulo(int n) {
    constexpr uint64_t polynomial = uint64_t{0x18005} << 16;
    uint64_t value = 1;
    for (int i = 0; i < n; ++i) {
        value <<= 1;
        if (value & (uint64_t{1} << 32))
            value ^= polynomial;
    }
    return value;
}

/// Folds the bytes 16 at a time with carry-less multiplies: a 128-bit value followed by 128 more
/// bits is its high half times x^192 plus its low half times x^128, modulo the polynomial, which
/// leaves the remainder unchanged. The folded 16 bytes and the tail then go through the tables.
__attribute__((target("pclmul,ssse3"))) uint16_t crc16Folded(const uint8_t* data, size_t size) {
    // The first byte becomes the most significant: its first bit is the highest power of x.
    const __m128i reverse = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const __m128i constants =
        _mm_set_epi64x(static_cast<long long>(powerModulo(192)), static_cast<long long>(powerModulo(128)));
#define HARLUNE_LOAD_REVERSED(at)                                                                            \
    _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + (at))), reverse)
    __m128i folded = HARLUNE_LOAD_REVERSED(0);
    size_t at = 16;
    for (; at + 16 <= size; at += 16) {
        const __m128i high = _mm_clmulepi64_si128(folded, constants, 0x11);
        const __m128i low = _mm_clmulepi64_si128(folded, constants, 0x00);
        folded = _mm_xor_si128(_mm_xor_si128(high, low), HARLUNE_LOAD_REVERSED(at));
    }
#undef HARLUNE_LOAD_REVERSED
    alignas(16) uint8_t bytes[16];
    _mm_store_si128(reinterpret_cast<__m128i*>(bytes), _mm_shuffle_epi8(folded, reverse));
    return crc16Bytes(crc16Bytes(0, bytes, sizeof bytes), data + at, size - at);
}

#endif

} // namespace

uint8_t flacCrc8(std::span<const uint8_t> bytes) {
    uint8_t crc = 0;
    for (const uint8_t byte : bytes)
        crc = crc8Table[crc ^ byte];
    return crc;
}

uint16_t flacCrc16(std::span<const uint8_t> bytes) {
#ifdef HARLUNE_CRC_FOLDS
    static const bool folds = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3");
    if (folds && bytes.size() >= 32)
        return crc16Folded(bytes.data(), bytes.size());
#endif
    return flacCrc16Portable(bytes);
}

uint16_t flacCrc16Portable(std::span<const uint8_t> bytes) {
    return crc16Bytes(0, bytes.data(), bytes.size());
}

} // namespace harlune
