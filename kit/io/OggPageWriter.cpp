#include "io/OggPageWriter.h"

#include "base/Precondition.h"

#include <array>

namespace harlune {

namespace {

std::array<uint32_t, 256> makeTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t r = i << 24;
        for (int bit = 0; bit < 8; ++bit)
            r = (r & 0x80000000U) ? (r << 1) ^ 0x04C11DB7U : r << 1;
        table[i] = r;
    }
    return table;
}

void putLE(std::vector<uint8_t>& out, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

} // namespace

uint32_t OggCRC::checksum(std::span<const uint8_t> data) {
    static const std::array<uint32_t, 256> table = makeTable();
    uint32_t crc = 0;
    for (const uint8_t byte : data)
        crc = (crc << 8) ^ table[((crc >> 24) ^ byte) & 0xFF];
    return crc;
}

void OggPageWriter::add(std::span<const uint8_t> packet, uint64_t packetGranule, PageOutput output) {
    HARLUNE_PRECONDITION(packet.size() <= 65024, "an Ogg packet on one page holds at most 65024 bytes");
    const size_t segments = packet.size() / 255 + 1;
    if (!lacing.empty() && (lacing.size() + segments >= 256 || body.size() + packet.size() > targetBodySize))
        flush(false, nullptr, output);
    lacing.insert(lacing.end(), packet.size() / 255, uint8_t{255});
    lacing.push_back(static_cast<uint8_t>(packet.size() % 255));
    body.insert(body.end(), packet.begin(), packet.end());
    granule = packetGranule;
}

void OggPageWriter::flush(bool eos, const uint64_t* granuleOverride, PageOutput output) {
    std::vector<uint8_t> page;
    page.reserve(27 + lacing.size() + body.size());
    page.insert(page.end(), {'O', 'g', 'g', 'S', 0});
    page.push_back(static_cast<uint8_t>((sequence == 0 ? 2 : 0) | (eos ? 4 : 0)));
    putLE(page, granuleOverride != nullptr ? *granuleOverride : granule, 8);
    putLE(page, serial, 4);
    putLE(page, sequence, 4);
    putLE(page, 0, 4); // CRC, filled in below
    page.push_back(static_cast<uint8_t>(lacing.size()));
    page.insert(page.end(), lacing.begin(), lacing.end());
    page.insert(page.end(), body.begin(), body.end());
    const uint32_t crc = OggCRC::checksum(page);
    for (int i = 0; i < 4; ++i)
        page[22 + static_cast<size_t>(i)] = static_cast<uint8_t>(crc >> (8 * i));
    output(page);
    ++sequence;
    lacing.clear();
    body.clear();
}

} // namespace harlune
