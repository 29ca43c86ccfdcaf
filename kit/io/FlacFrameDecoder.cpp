#include "io/FlacFrameDecoder.h"

#include "base/Precondition.h"
#include "io/FlacChecksums.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <utility>

namespace harlune {

namespace {

#if defined(__x86_64__) && defined(__GNUC__)
#define HARLUNE_RICE_CLONES __attribute__((target_clones("default", "arch=x86-64-v3")))
#else
#define HARLUNE_RICE_CLONES
#endif

// ---- bits ------------------------------------------------------------------------------------

/// The bits from a reader's position in a register: the `valid` bits at its top, then the bytes
/// from byte `next` on.
struct CachedBits {
    uint64_t cache;
    int valid;
    uint64_t next;
};

/// Big-endian bits of a byte span, which must be followed by `readPadding` readable bytes.
/// A position past the end reads the padding (never further); `overrun` tells of it, and a
/// frame that overran is refused.
class BitReader {
public:
    BitReader(const uint8_t* data, size_t bytes)
        : data_(data), lastByte_(bytes), limit_(static_cast<uint64_t>(bytes) * 8) {}

    /// The next 64 bits from the position; at least the first 57 are the stream's.
    uint64_t peek() const {
        uint64_t word;
        std::memcpy(&word, data_ + std::min(position_ >> 3, lastByte_), sizeof word);
        return __builtin_bswap64(word) << (position_ & 7);
    }
    void skip(uint64_t bits) { position_ += bits; }
    uint64_t position() const { return position_; }
    uint64_t limit() const { return limit_; }
    bool overrun() const { return position_ > limit_; }

    /// `count` bits as an unsigned number, 0 to 32 of them.
    uint32_t bits(int count) {
        const auto value = static_cast<uint32_t>((peek() >> 1) >> (63 - count));
        position_ += static_cast<uint64_t>(count);
        return value;
    }
    /// `count` bits as a two's complement number, 0 to 32 of them.
    int32_t signedBits(int count) {
        if (count == 0)
            return 0;
        const auto value = static_cast<int32_t>(static_cast<int64_t>(peek()) >> (64 - count));
        position_ += static_cast<uint64_t>(count);
        return value;
    }
    /// The count of zero bits before the next one bit, which is passed; nothing past the end.
    std::optional<uint32_t> unary() {
        uint32_t zeros = 0;
        while (true) {
            const uint64_t word = peek();
            const int leading = std::countl_zero(word);
            if (leading < 57) {
                position_ += static_cast<uint64_t>(leading) + 1;
                return zeros + static_cast<uint32_t>(leading);
            }
            position_ += 56;
            zeros += 56;
            if (position_ > limit_ || zeros > (1u << 30))
                return std::nullopt;
        }
    }
    /// The bits from the position as a register and the address after it.
    CachedBits cached() const {
        const uint64_t byte = position_ >> 3;
        const int offset = static_cast<int>(position_ & 7);
        uint32_t word;
        std::memcpy(&word, data_ + std::min(byte, lastByte_), sizeof word);
        return {uint64_t{__builtin_bswap32(word)} << (32 + offset), 32 - offset, byte + 4};
    }
    /// Back from a register whose `valid` bits come before byte `next`.
    void setCached(uint64_t next, int valid) { position_ = next * 8 - static_cast<uint64_t>(valid); }
    /// Four big-endian bytes from byte `at`, or from the end's padding for a byte past it.
    uint32_t load32(uint64_t at) const {
        uint32_t word;
        std::memcpy(&word, data_ + std::min(at, lastByte_), sizeof word);
        return __builtin_bswap32(word);
    }
    void alignToByte() { position_ = (position_ + 7) & ~uint64_t{7}; }

private:
    const uint8_t* data_;
    uint64_t lastByte_;
    uint64_t position_ = 0;
    uint64_t limit_;
};

int32_t unfold(uint32_t folded) {
    return static_cast<int32_t>(folded >> 1) ^ -static_cast<int32_t>(folded & 1);
}

/// Rice-coded residuals with parameter `parameter` into `out`.
///
/// The bits run through a register that is topped up 32 bits at a time from an address that
/// does not hang on the samples, so that a sample costs a count of zeros and two shifts, not a
/// load. A long run of zeros or a wide parameter takes the reader's careful road for one sample.
///
/// Built twice where the compiler can: for any x86-64, and for processors with BMI2 and LZCNT,
/// where the count of zeros and a shift by a register are one instruction each, which halves
/// the chain from one sample to the next. The loader picks one when the program starts.
HARLUNE_RICE_CLONES
bool readRicePartition(BitReader& reader, int parameter, int32_t* out, int count) {
    for (int i = 0; i < count;) {
        const CachedBits start = reader.cached();
        uint64_t cache = start.cache;
        int valid = start.valid;
        uint64_t next = start.next;
        for (; i < count; ++i) {
            if (valid <= 32) {
                cache |= uint64_t{reader.load32(next)} << (32 - valid);
                next += 4;
                valid += 32;
            }
            const int zeros = std::countl_zero(cache);
            const int used = zeros + 1 + parameter;
            if (used > valid) [[unlikely]]
                break;
            const uint64_t rest = cache << (zeros + 1);
            const auto low = static_cast<uint32_t>((rest >> 1) >> (63 - parameter));
            cache = rest << parameter;
            valid -= used;
            out[i] = unfold((static_cast<uint32_t>(zeros) << parameter) | low);
        }
        reader.setCached(next, valid);
        if (i == count)
            break;
        const std::optional<uint32_t> quotient = reader.unary();
        if (!quotient || (static_cast<uint64_t>(*quotient) << parameter) > 0xffffffffu)
            return false;
        out[i++] = unfold((*quotient << parameter) | reader.bits(parameter));
    }
    return !reader.overrun();
}

/// The residual of a subframe whose first `order` samples are warm-up, into `out + order`.
bool readResidual(BitReader& reader, int blockFrames, int order, int32_t* out) {
    const uint32_t method = reader.bits(2);
    if (method > 1)
        return false;
    const int parameterBits = method == 0 ? 4 : 5;
    const uint32_t escape = method == 0 ? 15 : 31;
    const int partitionOrder = static_cast<int>(reader.bits(4));
    const int partitions = 1 << partitionOrder;
    if (blockFrames % partitions != 0)
        return false;
    const int perPartition = blockFrames / partitions;
    if (perPartition < order)
        return false;
    int32_t* target = out + order;
    for (int partition = 0; partition < partitions; ++partition) {
        const int count = partition == 0 ? perPartition - order : perPartition;
        const uint32_t parameter = reader.bits(parameterBits);
        if (parameter == escape) {
            const int width = static_cast<int>(reader.bits(5));
            for (int i = 0; i < count; ++i)
                target[i] = reader.signedBits(width);
            if (reader.overrun())
                return false;
        } else if (!readRicePartition(reader, static_cast<int>(parameter), target, count)) {
            return false;
        }
        target += count;
    }
    return true;
}

// ---- prediction ------------------------------------------------------------------------------

/// Sums wrap as unsigned numbers: a damaged frame that overflows gives wrong samples (which its
/// CRC then refuses), not undefined behaviour.
int32_t plus(int32_t a, int64_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

void restoreFixed(int32_t* s, int blockFrames, int order) {
    switch (order) {
    case 0:
        break;
    case 1:
        for (int i = 1; i < blockFrames; ++i)
            s[i] = plus(s[i], s[i - 1]);
        break;
    case 2:
        for (int i = 2; i < blockFrames; ++i)
            s[i] = plus(s[i], 2 * int64_t{s[i - 1]} - s[i - 2]);
        break;
    case 3:
        for (int i = 3; i < blockFrames; ++i)
            s[i] = plus(s[i], 3 * (int64_t{s[i - 1]} - s[i - 2]) + s[i - 3]);
        break;
    default:
        for (int i = 4; i < blockFrames; ++i)
            s[i] = plus(s[i], 4 * (int64_t{s[i - 1]} + s[i - 3]) - 6 * int64_t{s[i - 2]} - s[i - 4]);
        break;
    }
}

/// Linear prediction of a fixed order, so that the tap loop unrolls; 64-bit sums, as libFLAC
/// uses for deep samples.
template <int Order> void restoreLpcOf(int32_t* s, int blockFrames, const int32_t* coefficients, int shift) {
    for (int i = Order; i < blockFrames; ++i) {
        int64_t sum = 0;
        for (int j = 0; j < Order; ++j)
            sum += int64_t{coefficients[j]} * s[i - 1 - j];
        s[i] = plus(s[i], sum >> shift);
    }
}

/// Where every sum surely fits 32 bits (shallow samples, small coefficients) the taps run as
/// 32-bit products (unsigned, so that a damaged frame wraps), which the compiler vectorises; the
/// result is the same.
template <int Order>
void restoreLpcNarrowOf(int32_t* s, int blockFrames, const int32_t* coefficients, int shift) {
    for (int i = Order; i < blockFrames; ++i) {
        uint32_t sum = 0;
        for (int j = 0; j < Order; ++j)
            sum += static_cast<uint32_t>(coefficients[j]) * static_cast<uint32_t>(s[i - 1 - j]);
        s[i] = plus(s[i], static_cast<int32_t>(sum) >> shift);
    }
}

void restoreLpcAnyOrder(int32_t* s, int blockFrames, int order, const int32_t* coefficients, int shift) {
    for (int i = order; i < blockFrames; ++i) {
        int64_t sum = 0;
        for (int j = 0; j < order; ++j)
            sum += int64_t{coefficients[j]} * s[i - 1 - j];
        s[i] = plus(s[i], sum >> shift);
    }
}

template <int... Orders>
void restoreLpcDispatch(std::integer_sequence<int, Orders...>, bool narrow, int32_t* s, int blockFrames,
                        int order, const int32_t* coefficients, int shift) {
    const bool done =
        ((order == Orders + 1 ? (narrow ? restoreLpcNarrowOf<Orders + 1>(s, blockFrames, coefficients, shift)
                                        : restoreLpcOf<Orders + 1>(s, blockFrames, coefficients, shift),
                                 true)
                              : false) ||
         ...);
    if (!done)
        restoreLpcAnyOrder(s, blockFrames, order, coefficients, shift);
}

void restoreLpc(int32_t* s, int blockFrames, int order, const int32_t* coefficients, int shift,
                int sampleBits) {
    // The largest sum before the shift: every coefficient against the largest sample.
    int64_t coefficientSum = 0;
    for (int j = 0; j < order; ++j)
        coefficientSum += coefficients[j] < 0 ? -int64_t{coefficients[j]} : coefficients[j];
    const bool narrow = (coefficientSum << (sampleBits - 1)) < (int64_t{1} << 31);
    restoreLpcDispatch(std::make_integer_sequence<int, 12>(), narrow, s, blockFrames, order, coefficients,
                       shift);
}

// ---- subframes -------------------------------------------------------------------------------

bool readSubframe(BitReader& reader, int blockFrames, int sampleBits, int32_t* out) {
    if (reader.bits(1) != 0)
        return false;
    const uint32_t type = reader.bits(6);
    int wasted = 0;
    if (reader.bits(1) == 1) {
        const std::optional<uint32_t> zeros = reader.unary();
        if (!zeros || *zeros + 1 >= static_cast<uint32_t>(sampleBits))
            return false;
        wasted = static_cast<int>(*zeros) + 1;
    }
    const int bits = sampleBits - wasted;

    if (type == 0) { // constant
        const int32_t value = reader.signedBits(bits);
        std::fill(out, out + blockFrames, value);
    } else if (type == 1) { // verbatim
        for (int i = 0; i < blockFrames; ++i)
            out[i] = reader.signedBits(bits);
    } else if (type >= 8 && type <= 12) { // fixed predictor
        const int order = static_cast<int>(type) - 8;
        if (order > blockFrames)
            return false;
        for (int i = 0; i < order; ++i)
            out[i] = reader.signedBits(bits);
        if (!readResidual(reader, blockFrames, order, out))
            return false;
        restoreFixed(out, blockFrames, order);
    } else if (type >= 32) { // linear prediction
        const int order = static_cast<int>(type) - 31;
        if (order > blockFrames)
            return false;
        for (int i = 0; i < order; ++i)
            out[i] = reader.signedBits(bits);
        const int precision = static_cast<int>(reader.bits(4)) + 1;
        const int32_t shift = reader.signedBits(5);
        if (precision == 16 || shift < 0)
            return false;
        std::array<int32_t, 32> coefficients{};
        for (int j = 0; j < order; ++j)
            coefficients[static_cast<size_t>(j)] = reader.signedBits(precision);
        if (reader.overrun() || !readResidual(reader, blockFrames, order, out))
            return false;
        restoreLpc(out, blockFrames, order, coefficients.data(), shift, bits);
    } else {
        return false; // a reserved type
    }
    if (reader.overrun())
        return false;
    if (wasted > 0)
        for (int i = 0; i < blockFrames; ++i)
            out[i] = static_cast<int32_t>(static_cast<uint32_t>(out[i]) << wasted);
    return true;
}

// ---- the frame header ------------------------------------------------------------------------

struct FrameHeader {
    bool variableBlocks = false;
    int blockFrames = 0;
    int channelAssignment = 0;
    int sampleBits = 0;
    uint64_t number = 0; // the frame's number in a fixed-block stream, else its first sample
    size_t bytes = 0;
};

std::optional<FrameHeader> readHeader(std::span<const uint8_t> bytes, const FlacStreamShape& shape) {
    // The longest header has 16 bytes (4 fixed, a 7-byte number, 2 + 2 of sizes, 1 of CRC): all
    // are within the span's padding, and the CRC's place is checked below.
    if (bytes.size() < 4)
        return std::nullopt;
    const uint8_t* b = bytes.data();
    if (b[0] != 0xff || (b[1] & 0xfe) != 0xf8 || (b[3] & 1) != 0)
        return std::nullopt;
    FrameHeader header;
    header.variableBlocks = (b[1] & 1) != 0;
    const int sizeCode = b[2] >> 4;
    const int rateCode = b[2] & 0x0f;
    header.channelAssignment = b[3] >> 4;
    const int bitsCode = (b[3] >> 1) & 7;
    if (sizeCode == 0 || rateCode == 15 || header.channelAssignment > 10 || bitsCode == 3)
        return std::nullopt;

    // The number, coded as UTF-8 is, stretched to 36 bits.
    size_t at = 4;
    const uint8_t lead = b[at++];
    int more = 0;
    uint64_t number = 0;
    if (lead < 0x80) {
        number = lead;
    } else if (lead >= 0xc0 && lead < 0xfe) {
        more = std::countl_one(lead) - 1;
        number = lead & (0x3fu >> more);
    } else if (lead == 0xfe) {
        more = 6;
    } else {
        return std::nullopt;
    }
    for (int i = 0; i < more; ++i) {
        const uint8_t next = b[at++];
        if ((next & 0xc0) != 0x80)
            return std::nullopt;
        number = (number << 6) | (next & 0x3f);
    }
    header.number = number;

    if (sizeCode == 1)
        header.blockFrames = 192;
    else if (sizeCode <= 5)
        header.blockFrames = 576 << (sizeCode - 2);
    else if (sizeCode == 6)
        header.blockFrames = b[at++] + 1;
    else if (sizeCode == 7) {
        header.blockFrames = ((b[at] << 8) | b[at + 1]) + 1;
        at += 2;
    } else
        header.blockFrames = 256 << (sizeCode - 8);
    if (rateCode == 12)
        at += 1;
    else if (rateCode == 13 || rateCode == 14)
        at += 2;

    static constexpr std::array<int, 8> bitsForCode = {0, 8, 12, 0, 16, 20, 24, 32};
    header.sampleBits = bitsCode == 0 ? shape.bitsPerSample : bitsForCode[static_cast<size_t>(bitsCode)];
    if (at >= bytes.size() || flacCrc8(bytes.first(at)) != b[at])
        return std::nullopt;
    header.bytes = at + 1;
    return header;
}

std::optional<FlacFrameSpan> decodeFrame(std::span<const uint8_t> bytes, const FlacStreamShape& shape_,
                                         std::vector<std::vector<int32_t>>& planes_) {
    const std::optional<FrameHeader> header = readHeader(bytes, shape_);
    if (!header || header->sampleBits != shape_.bitsPerSample || header->blockFrames > shape_.maxBlockFrames)
        return std::nullopt;
    const int assignment = header->channelAssignment;
    const int channels = assignment < 8 ? assignment + 1 : 2;
    if (channels != shape_.channels)
        return std::nullopt;
    const int blockFrames = header->blockFrames;

    BitReader reader(bytes.data() + header->bytes, bytes.size() - header->bytes);
    for (int c = 0; c < channels; ++c) {
        // The side channel carries one bit more than the others.
        const bool side = (assignment == 8 || assignment == 10) ? c == 1 : assignment == 9 && c == 0;
        if (!readSubframe(reader, blockFrames, shape_.bitsPerSample + (side ? 1 : 0),
                          planes_[static_cast<size_t>(c)].data()))
            return std::nullopt;
    }
    reader.alignToByte();
    const size_t audioEnd = header->bytes + static_cast<size_t>(reader.position() / 8);
    if (audioEnd + 2 > bytes.size())
        return std::nullopt;
    const auto stored = static_cast<uint16_t>((bytes[audioEnd] << 8) | bytes[audioEnd + 1]);
    if (flacCrc16(bytes.first(audioEnd)) != stored)
        return std::nullopt;

    int32_t* first = planes_[0].data();
    int32_t* second = channels > 1 ? planes_[1].data() : nullptr;
    switch (assignment) {
    case 8: // left, side
        for (int i = 0; i < blockFrames; ++i)
            second[i] = plus(first[i], -int64_t{second[i]});
        break;
    case 9: // side, right
        for (int i = 0; i < blockFrames; ++i)
            first[i] = plus(first[i], second[i]);
        break;
    case 10: // mid, side
        for (int i = 0; i < blockFrames; ++i) {
            const int64_t side = second[i];
            const int64_t mid = (int64_t{first[i]} * 2) | (side & 1);
            first[i] = static_cast<int32_t>((mid + side) >> 1);
            second[i] = static_cast<int32_t>((mid - side) >> 1);
        }
        break;
    default:
        break;
    }

    const int64_t firstSample = header->variableBlocks
                                    ? static_cast<int64_t>(header->number)
                                    : static_cast<int64_t>(header->number) * shape_.fixedBlockFrames;
    return FlacFrameSpan{firstSample, blockFrames, audioEnd + 2};
}

} // namespace

FlacFrameDecoder::FlacFrameDecoder(FlacStreamShape shape) : shape_(shape) {
    HARLUNE_PRECONDITION(shape.channels >= 1 && shape.channels <= 8, "a FLAC stream has 1 to 8 channels");
    HARLUNE_PRECONDITION(shape.bitsPerSample >= 4 && shape.bitsPerSample <= maxBitsPerSample,
                         "this decoder takes 4 to 24 bits");
    HARLUNE_PRECONDITION(shape.maxBlockFrames >= 16 && shape.maxBlockFrames <= 65535,
                         "a FLAC block has 16 to 65535 frames");
    planes_.assign(static_cast<size_t>(shape.channels),
                   std::vector<int32_t>(static_cast<size_t>(shape.maxBlockFrames)));
}

std::optional<FlacFrameSpan> FlacFrameDecoder::decode(std::span<const uint8_t> bytes) {
    return decodeFrame(bytes, shape_, planes_);
}

} // namespace harlune
