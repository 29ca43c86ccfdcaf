#pragma once

#include <cstdint>
#include <span>

namespace harlune {

/// The checksums of a FLAC frame: CRC-8 (polynomial x^8 + x^2 + x + 1) over its header and
/// CRC-16 (x^16 + x^15 + x^2 + 1) over the whole frame, both most significant bit first and
/// starting from zero.
uint8_t flacCrc8(std::span<const uint8_t> bytes);

/// CRC-16 at the best speed this processor offers: it runs over every byte of a file read.
uint16_t flacCrc16(std::span<const uint8_t> bytes);

/// CRC-16 from tables only, for any processor.
uint16_t flacCrc16Portable(std::span<const uint8_t> bytes);

} // namespace harlune
