#include "io/AudioEncoder.h"

#include "base/HarluneError.h"
#include "io/ChannelLayouts.h"
#include "io/EncodePipeline.h"
#include "io/EncodePlan.h"
#include "io/EncodeStream.h"
#include "io/FileReplacement.h"
#include "io/LameLibrary.h"
#include "io/M4aWriter.h"

#include <algorithm>
#include <sndfile.h>
#include <system_error>

namespace harlune::AudioEncoder {

namespace {

constexpr int64_t chunkFrames = 32768;

} // namespace

void write(const AudioSource& source, std::optional<FrameRange> range,
           const std::filesystem::path& destination, const EncodeSettings& settings,
           const Progress& progress) {
    const EncodePlan plan = EncodePlan::make(source, range, settings);
    FileReplacement::TemporaryFile temporary(destination, plan.settings.format);

    std::unique_ptr<ChunkSink> head = makeEncodeChain(plan, temporary.writePath(), false).head;
    try {
        const double length = static_cast<double>(std::max<int64_t>(plan.range.length(), 1));
        source.forEachChunk(plan.range, chunkFrames, [&](ChunkViews chunk, int64_t start) {
            head->consume(chunk);
            if (progress) {
                const auto end = start + static_cast<int64_t>(chunk.front().size());
                if (!progress(std::min(static_cast<double>(end - plan.range.lower) / length, 1.0)))
                    throw HarluneError::cancelled();
            }
        });
        head->finish();
    } catch (...) {
        head->abort();
        throw;
    }
    head.reset();
    temporary.commit();
    if (progress)
        progress(1.0);
}

bool isAvailable(ExportFormat format) {
    switch (format) {
    case ExportFormat::wav:
    case ExportFormat::aiff:
    case ExportFormat::caf:
    case ExportFormat::opus:
        return true;
    case ExportFormat::flac: {
        SF_INFO info{};
        info.samplerate = 48000;
        info.channels = 2;
        info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_24;
        return sf_format_check(&info) == SF_TRUE;
    }
    case ExportFormat::alac:
        return M4aWriter::isAvailable(M4aWriter::Codec::alac);
    case ExportFormat::aac:
        return M4aWriter::isAvailable(M4aWriter::Codec::aac);
    case ExportFormat::mp3:
        return LameLibrary::shared() != nullptr;
    }
    return false;
}

double outputSampleRate(ExportFormat format, double requested) {
    return EncodePlan::resolveRate(format, requested);
}

std::optional<std::string> lameVersion() {
    if (const auto lame = LameLibrary::shared())
        return lame->versionString;
    return std::nullopt;
}

} // namespace harlune::AudioEncoder
