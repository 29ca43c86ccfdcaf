#include "io/FormatCatalog.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <utility>

namespace harlune {

namespace {

using Entry = std::pair<std::string_view, ExportFormat>;

constexpr std::array extensions{
    Entry{"wav", ExportFormat::wav},   Entry{"wave", ExportFormat::wav},  Entry{"bwf", ExportFormat::wav},
    Entry{"rf64", ExportFormat::wav},  Entry{"w64", ExportFormat::wav},   Entry{"aif", ExportFormat::aiff},
    Entry{"aiff", ExportFormat::aiff}, Entry{"aifc", ExportFormat::aiff}, Entry{"caf", ExportFormat::caf},
    Entry{"flac", ExportFormat::flac}, Entry{"m4a", ExportFormat::aac},   Entry{"m4b", ExportFormat::aac},
    Entry{"mp4", ExportFormat::aac},   Entry{"aac", ExportFormat::aac},   Entry{"adts", ExportFormat::aac},
    Entry{"alac", ExportFormat::alac}, Entry{"mp3", ExportFormat::mp3},   Entry{"opus", ExportFormat::opus},
};

constexpr std::array typeIdentifiers{
    Entry{"com.microsoft.waveform-audio", ExportFormat::wav},
    Entry{"public.wav", ExportFormat::wav},
    Entry{"com.microsoft.wave", ExportFormat::wav},
    Entry{"public.aiff-audio", ExportFormat::aiff},
    Entry{"public.aifc-audio", ExportFormat::aiff},
    Entry{"com.apple.aiff-audio", ExportFormat::aiff},
    Entry{"com.apple.coreaudio-format", ExportFormat::caf},
    Entry{"org.xiph.flac", ExportFormat::flac},
    Entry{"public.flac", ExportFormat::flac},
    Entry{"com.apple.m4a-audio", ExportFormat::aac},
    Entry{"public.mpeg-4-audio", ExportFormat::aac},
    Entry{"public.aac-audio", ExportFormat::aac},
    Entry{"com.apple.m4b-audio", ExportFormat::aac},
    Entry{"public.mp3", ExportFormat::mp3},
    Entry{"public.mpeg-3", ExportFormat::mp3},
    Entry{"org.xiph.opus", ExportFormat::opus},
};

template <size_t N>
std::optional<ExportFormat> find(const std::array<Entry, N>& table, std::string_view key) {
    for (const auto& [name, format] : table)
        if (name == key)
            return format;
    return std::nullopt;
}

} // namespace

std::optional<ExportFormat> FormatCatalog::exportFormat(std::string_view fileExtension) {
    std::string key(fileExtension);
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (!key.empty() && key.front() == '.')
        key.erase(0, 1);
    return find(extensions, key);
}

std::optional<ExportFormat> FormatCatalog::exportFormatForTypeIdentifier(std::string_view typeIdentifier) {
    return find(typeIdentifiers, typeIdentifier);
}

} // namespace harlune
