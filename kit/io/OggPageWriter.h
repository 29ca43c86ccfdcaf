#pragma once

#include "base/FunctionRef.h"

#include <cstdint>
#include <span>
#include <vector>

namespace harlune {

/// The CRC-32 of Ogg pages (RFC 3533): polynomial 0x04C11DB7, initial value 0, no reflection,
/// no final XOR.
namespace OggCRC {
uint32_t checksum(std::span<const uint8_t> data);
} // namespace OggCRC

/// Builds the pages of one logical Ogg bitstream (RFC 3533). Packets never span pages: a page is
/// closed before a packet that would push its body past `targetBodySize` or its segment table to
/// 256 entries.
struct OggPageWriter {
    /// Receives each finished page, header and body together.
    using PageOutput = FunctionRef<void(std::span<const uint8_t>)>;

    uint32_t serial = 1;
    uint32_t sequence = 0;        ///< number of the next page
    std::vector<uint8_t> lacing;  ///< segment table of the page in progress
    std::vector<uint8_t> body;    ///< data of the page in progress
    uint64_t granule = 0;         ///< granule position of the last packet added
    size_t targetBodySize = 4096; ///< bytes

    explicit OggPageWriter(uint32_t streamSerial) : serial(streamSerial) {}

    /// Appends a packet of at most 65024 bytes ending at `packetGranule`, first closing the page
    /// in progress (as a page that is not the last) when the packet would not fit.
    void add(std::span<const uint8_t> packet, uint64_t packetGranule, PageOutput output);
    /// Closes the page in progress, even an empty one, and hands it to `output`. The first page
    /// (sequence 0) is flagged as beginning of stream, a page with `eos` as its end.
    void flush(bool eos, const uint64_t* granuleOverride, PageOutput output);
};

} // namespace harlune
