#pragma once

#include "base/AudioFormats.h"

#include <cstdint>
#include <optional>
#include <string>

namespace harlune {

/// Builds a four-character code from its text, most significant byte first.
constexpr uint32_t fourCC(const char (&text)[5]) {
    return (static_cast<uint32_t>(static_cast<unsigned char>(text[0])) << 24) |
           (static_cast<uint32_t>(static_cast<unsigned char>(text[1])) << 16) |
           (static_cast<uint32_t>(static_cast<unsigned char>(text[2])) << 8) |
           static_cast<uint32_t>(static_cast<unsigned char>(text[3]));
}

namespace FourCC {
/// The four bytes as text when each is printable (32...126), otherwise the unsigned number.
std::string string(uint32_t code);
/// "OSStatus -50", followed by " 'wht?'" when the same bits read as four characters.
std::string status(int32_t status);
} // namespace FourCC

/// Container codes that not every header names.
namespace CAFileType {
inline constexpr uint32_t rf64 = fourCC("RF64");
inline constexpr uint32_t bw64 = fourCC("BW64");
inline constexpr uint32_t wave64 = fourCC("W64f");
inline constexpr uint32_t flac = fourCC("flac");
inline constexpr uint32_t ogg = fourCC("Oggf");
} // namespace CAFileType

/// Codec codes that not every header names.
namespace CAFormat {
inline constexpr uint32_t flac = fourCC("flac");
inline constexpr uint32_t opus = fourCC("opus");
inline constexpr uint32_t vorbis = fourCC("vorb");
} // namespace CAFormat

/// The labels the user reads for container and codec codes, and the export format that would
/// reproduce a file as it is. The native reader describes every file in these codes, whatever
/// library decodes it.
namespace FormatCodes {
/// "WAVE", "AIFF-C", "MPEG-4"...; unknown codes print through `FourCC::string`.
std::string container(uint32_t fileType);
/// "Linear PCM", "Apple Lossless", "MP3"...; unknown codes print through `FourCC::string`.
std::string codec(uint32_t formatID);
std::optional<ExportFormat> nativeExportFormat(uint32_t fileType, uint32_t formatID);
} // namespace FormatCodes

} // namespace harlune
