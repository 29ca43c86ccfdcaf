#include "io/AudioDecoder.h"

#include "base/HarluneError.h"
#include "io/FFmpegDecoder.h"
#include "io/FFmpegTool.h"
#include "io/SndFileCannotDecode.h"
#include "io/SndFileReader.h"

#include <algorithm>
#include <set>
#include <unistd.h>

namespace harlune {

namespace {

void requireReadable(const std::filesystem::path& url) {
    if (url.empty() || ::access(url.c_str(), R_OK) != 0)
        throw HarluneError::decodeFailed("the file doesn\u2019t exist or can\u2019t be read");
}

AudioFileInfo decodeWithFallback(const std::filesystem::path& url, DecodeProgress progress,
                                 DecodeFormatCallback onFormat, DecodeChunkCallback onChunk) {
    requireReadable(url);
    std::string nativeMessage;
    try {
        SndFileReader reader(url);
        return reader.decode(progress, onFormat, onChunk);
    } catch (const SndFileCannotDecode& refusal) {
        nativeMessage = refusal.message;
    }
    if (!FFmpegDecoder::isAvailable())
        throw HarluneError::unsupportedFormat(nativeMessage + "; install ffmpeg to open more formats");
    try {
        return FFmpegDecoder::decode(url, progress, onFormat, onChunk);
    } catch (const HarluneError& error) {
        if (error.kind() == HarluneError::Kind::decodeFailed)
            throw HarluneError::decodeFailed(nativeMessage + "; " + error.detail());
        throw;
    }
}

} // namespace

AudioFileInfo AudioDecoder::probe(const std::filesystem::path& url) {
    requireReadable(url);
    try {
        const SndFileReader reader(url);
        return reader.info(reader.lengthFrames());
    } catch (const std::exception&) {
        // Whatever the native reader disliked, the tool may still know the file.
    }
    if (FFmpegTool::ffprobeURL())
        return FFmpegDecoder::probe(url).info;
    const std::string extension = url.extension().string();
    throw HarluneError::unsupportedFormat(extension.size() > 1 ? extension.substr(1) : "unknown file type");
}

AudioFileInfo AudioDecoder::decode(const std::filesystem::path& url, DecodeProgress progress,
                                   DecodeFormatCallback onFormat, DecodeChunkCallback onChunk) {
    return decodeWithFallback(url, progress, onFormat, onChunk);
}

AudioDecoder::DecodedArrays AudioDecoder::decodeToArrays(const std::filesystem::path& url) {
    DecodedArrays result;
    result.info = decodeWithFallback(
        url, std::nullopt,
        [&](const AudioFileInfo& info) {
            result.channels.assign(static_cast<size_t>(std::max(0, info.channelCount)), {});
            const auto capacity = static_cast<size_t>(std::max<int64_t>(0, info.frameCount + 4096));
            for (auto& channel : result.channels)
                channel.reserve(capacity);
        },
        [&](ChunkViews chunk) {
            for (size_t c = 0; c < chunk.size() && c < result.channels.size(); ++c)
                result.channels[c].insert(result.channels[c].end(), chunk[c].begin(), chunk[c].end());
        });
    return result;
}

const std::vector<std::string>& AudioDecoder::coreAudioExtensions() {
    static const std::vector<std::string> extensions = [] {
        // libsndfile lists its Ogg container as "oga" only, though it reads ".ogg" files the same.
        std::vector<std::string> result{"wav", "aif", "aiff", "aifc", "caf",
                                        "m4a", "mp3", "flac", "aac",  "ogg"};
        for (auto& extension : SndFileReader::libraryExtensions())
            if (std::find(result.begin(), result.end(), extension) == result.end())
                result.push_back(std::move(extension));
        return result;
    }();
    return extensions;
}

std::vector<std::string> AudioDecoder::readableFileExtensions() {
    std::set<std::string> all(coreAudioExtensions().begin(), coreAudioExtensions().end());
    if (FFmpegDecoder::isAvailable())
        all.insert({"wma", "asf",  "wv",   "ape", "tta",  "tak", "mka",  "mkv", "webm", "ogg",
                    "oga", "opus", "spx",  "mpc", "dts",  "ac3", "eac3", "mp2", "mp4",  "mov",
                    "m4v", "w64",  "rf64", "voc", "au",   "snd", "dsf",  "dff", "shn",  "ra",
                    "rm",  "amr",  "3gp",  "aac", "flac", "wav", "aiff", "aif", "caf"});
    return {all.begin(), all.end()};
}

} // namespace harlune
