#include "io/FormatCodes.h"

#include <array>
#include <utility>

namespace harlune {

std::string FourCC::string(uint32_t code) {
    std::string text(4, ' ');
    for (int i = 0; i < 4; ++i) {
        const auto byte = static_cast<unsigned char>((code >> (24 - 8 * i)) & 0xFF);
        if (byte < 32 || byte > 126)
            return std::to_string(code);
        text[static_cast<size_t>(i)] = static_cast<char>(byte);
    }
    return text;
}

std::string FourCC::status(int32_t status) {
    std::string text = "OSStatus " + std::to_string(status);
    const std::string characters = string(static_cast<uint32_t>(status));
    if (characters.size() == 4 && characters != std::to_string(static_cast<uint32_t>(status)))
        text += " '" + characters + "'";
    return text;
}

namespace {

using Label = std::pair<uint32_t, const char*>;

constexpr std::array containers{
    Label{fourCC("WAVE"), "WAVE"},
    Label{fourCC("RF64"), "RF64"},
    Label{fourCC("BW64"), "BW64"},
    Label{fourCC("W64f"), "Wave64"},
    Label{fourCC("caff"), "CAF"},
    Label{fourCC("AIFF"), "AIFF"},
    Label{fourCC("AIFC"), "AIFF-C"},
    Label{fourCC("flac"), "FLAC"},
    Label{fourCC("Oggf"), "Ogg"},
    Label{fourCC("3gpp"), "3GPP"},
    Label{fourCC("MPG1"), "MPEG Audio"},
    Label{fourCC("MPG2"), "MPEG Audio"},
    Label{fourCC("MPG3"), "MPEG Audio"},
    Label{fourCC("NeXT"), "NeXT/Sun"},
    Label{fourCC("Sd2f"), "Sound Designer II"},
    Label{fourCC("ac-3"), "AC-3"},
    Label{fourCC("adts"), "ADTS"},
    Label{fourCC("amrf"), "AMR"},
    Label{fourCC("ec-3"), "E-AC-3"},
    Label{fourCC("loas"), "LOAS"},
    Label{fourCC("m4af"), "MPEG-4"},
    Label{fourCC("m4bf"), "MPEG-4"},
    Label{fourCC("mp4f"), "MPEG-4"},
    Label{fourCC("3gp2"), "3GPP2"},
};

constexpr std::array codecs{
    Label{fourCC("lpcm"), "Linear PCM"},    Label{fourCC("aac "), "AAC"},
    Label{fourCC("aach"), "HE-AAC"},        Label{fourCC("aacp"), "HE-AAC v2"},
    Label{fourCC("aacl"), "AAC-LD"},        Label{fourCC("aace"), "AAC-ELD"},
    Label{fourCC("aacf"), "AAC-ELD"},       Label{fourCC("aacg"), "AAC-ELD"},
    Label{fourCC("usac"), "xHE-AAC"},       Label{fourCC("alac"), "Apple Lossless"},
    Label{fourCC("flac"), "FLAC"},          Label{fourCC(".mp1"), "MPEG Layer I"},
    Label{fourCC(".mp2"), "MPEG Layer II"}, Label{fourCC(".mp3"), "MP3"},
    Label{fourCC("opus"), "Opus"},          Label{fourCC("vorb"), "Vorbis"},
    Label{fourCC("samr"), "AMR"},           Label{fourCC("MAC3"), "MACE 3:1"},
    Label{fourCC("MAC6"), "MACE 6:1"},      Label{fourCC("QDM2"), "QDesign"},
    Label{fourCC("QDMC"), "QDesign"},       Label{fourCC("Qclp"), "QCELP"},
    Label{fourCC("ac-3"), "AC-3"},          Label{fourCC("ec-3"), "E-AC-3"},
    Label{fourCC("alaw"), "A-law"},         Label{fourCC("ulaw"), "\u00B5-law"},
    Label{fourCC("apac"), "APAC"},          Label{fourCC("ilbc"), "iLBC"},
    Label{fourCC("ima4"), "IMA 4:1 ADPCM"}, Label{0x6D730002, "Microsoft ADPCM"},
    Label{0x6D730011, "IMA ADPCM"},         Label{0x6D730031, "GSM 6.10"},
    Label{fourCC("sawb"), "AMR-WB"},
};

template <size_t N> std::string lookup(const std::array<Label, N>& table, uint32_t code) {
    for (const auto& [key, label] : table)
        if (key == code)
            return label;
    return FourCC::string(code);
}

} // namespace

std::string FormatCodes::container(uint32_t fileType) {
    return lookup(containers, fileType);
}

std::string FormatCodes::codec(uint32_t formatID) {
    return lookup(codecs, formatID);
}

std::optional<ExportFormat> FormatCodes::nativeExportFormat(uint32_t fileType, uint32_t formatID) {
    const bool pcm = formatID == fourCC("lpcm");
    switch (fileType) {
    case fourCC("WAVE"):
    case fourCC("RF64"):
    case fourCC("BW64"):
    case fourCC("W64f"):
        return pcm ? std::optional(ExportFormat::wav) : std::nullopt;
    case fourCC("AIFF"):
    case fourCC("AIFC"):
        return pcm ? std::optional(ExportFormat::aiff) : std::nullopt;
    case fourCC("caff"):
        return ExportFormat::caf;
    case fourCC("flac"):
        return ExportFormat::flac;
    case fourCC("MPG3"):
        return ExportFormat::mp3;
    case fourCC("adts"):
        return formatID == fourCC("aac ") ? std::optional(ExportFormat::aac) : std::nullopt;
    case fourCC("m4af"):
    case fourCC("mp4f"):
    case fourCC("m4bf"):
        if (formatID == fourCC("alac"))
            return ExportFormat::alac;
        if (formatID == fourCC("aac "))
            return ExportFormat::aac;
        return std::nullopt;
    case fourCC("Oggf"):
        return formatID == CAFormat::opus ? std::optional(ExportFormat::opus) : std::nullopt;
    default:
        return std::nullopt; // "MPG1" and "MPG2" too: no export writes those layers
    }
}

} // namespace harlune
