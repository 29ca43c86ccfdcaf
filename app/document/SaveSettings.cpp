#include "document/SaveSettings.h"

#include "editor/Preferences.h"
#include "io/AudioEncoder.h"

namespace harlune {

std::optional<EncodeSettings> settingsMatching(const AudioFileInfo& info) {
    if (!info.nativeExportFormat || !AudioEncoder::isAvailable(*info.nativeExportFormat))
        return std::nullopt;
    EncodeSettings settings = Preferences::encodeSettings(*info.nativeExportFormat);
    if (info.bitDepth) {
        if (info.isFloat)
            settings.bitDepth = PCMBitDepth::float32;
        else if (*info.bitDepth == 16 || *info.bitDepth == 24 || *info.bitDepth == 32 || *info.bitDepth == 0)
            settings.bitDepth = static_cast<PCMBitDepth>(*info.bitDepth);
    }
    if (info.bitRateKbps)
        settings.bitRateKbps = *info.bitRateKbps;
    return settings.normalized();
}

} // namespace harlune
