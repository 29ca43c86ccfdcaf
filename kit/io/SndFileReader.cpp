#include "io/SndFileReader.h"

#include "base/HarluneError.h"
#include "io/Deinterleave.h"
#include "io/FormatCodes.h"
#include "io/QuietMpegDecoder.h"
#include "io/SndFileCannotDecode.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <fstream>
#include <sndfile.h>

namespace harlune {

namespace {

// The native road, as the user reads of it in messages.
const std::string decoderName = "the built-in decoder";
const std::string cannotOpen = decoderName + " can\u2019t open the file (";

// Links the quieting of libmpg123 into every program that reads through this reader.
[[gnu::used]] const auto linkQuietMpegDecoder = &QuietMpegDecoder::isInstalled;

constexpr uint32_t linearPCM = fourCC("lpcm");
// Windows codec numbers wrapped in the 'ms' prefix, as the native layer names them.
constexpr uint32_t microsoftADPCM = 0x6D730002;
constexpr uint32_t imaADPCM = 0x6D730011;
constexpr uint32_t gsm610 = 0x6D730031;

// AIFF and AIFF-C share one libsndfile major format; the form type at bytes 8..11 tells them apart.
uint32_t aiffFormType(const std::filesystem::path& url) {
    std::ifstream stream(url, std::ios::binary);
    std::array<char, 12> header{};
    if (stream.read(header.data(), header.size()) && std::string_view(header.data() + 8, 4) == "AIFC")
        return fourCC("AIFC");
    return fourCC("AIFF");
}

std::optional<uint32_t> fileTypeOf(int format, const std::filesystem::path& url) {
    switch (format & SF_FORMAT_TYPEMASK) {
    case SF_FORMAT_WAV:
    case SF_FORMAT_WAVEX:
        return fourCC("WAVE");
    case SF_FORMAT_RF64:
        return CAFileType::rf64;
    case SF_FORMAT_W64:
        return CAFileType::wave64;
    case SF_FORMAT_AIFF:
        return aiffFormType(url);
    case SF_FORMAT_CAF:
        return fourCC("caff");
    case SF_FORMAT_FLAC:
        return CAFileType::flac;
    case SF_FORMAT_OGG:
        return CAFileType::ogg;
    case SF_FORMAT_AU:
        return fourCC("NeXT");
    case SF_FORMAT_SD2:
        return fourCC("Sd2f");
    case SF_FORMAT_MPEG:
        switch (format & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_MPEG_LAYER_I:
            return fourCC("MPG1");
        case SF_FORMAT_MPEG_LAYER_II:
            return fourCC("MPG2");
        default:
            return fourCC("MPG3");
        }
    default:
        return std::nullopt;
    }
}

std::optional<uint32_t> formatIDOf(int format) {
    const int major = format & SF_FORMAT_TYPEMASK;
    if (major == SF_FORMAT_FLAC)
        return CAFormat::flac; // the subtype only tells the bit depth
    switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_FLOAT:
    case SF_FORMAT_DOUBLE:
        return linearPCM;
    case SF_FORMAT_ULAW:
        return fourCC("ulaw");
    case SF_FORMAT_ALAW:
        return fourCC("alaw");
    case SF_FORMAT_IMA_ADPCM:
        return (major == SF_FORMAT_AIFF || major == SF_FORMAT_CAF) ? fourCC("ima4") : imaADPCM;
    case SF_FORMAT_MS_ADPCM:
        return microsoftADPCM;
    case SF_FORMAT_GSM610:
        return gsm610;
    case SF_FORMAT_VORBIS:
        return CAFormat::vorbis;
    case SF_FORMAT_OPUS:
        return CAFormat::opus;
    case SF_FORMAT_ALAC_16:
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
    case SF_FORMAT_ALAC_32:
        return fourCC("alac");
    case SF_FORMAT_MPEG_LAYER_I:
        return fourCC(".mp1");
    case SF_FORMAT_MPEG_LAYER_II:
        return fourCC(".mp2");
    case SF_FORMAT_MPEG_LAYER_III:
        return fourCC(".mp3");
    default:
        return std::nullopt;
    }
}

std::optional<int> bitsOfSubtype(int format) {
    switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
        return 8;
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_ALAC_16:
        return 16;
    case SF_FORMAT_ALAC_20:
        return 20;
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_ALAC_24:
        return 24;
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_ALAC_32:
    case SF_FORMAT_FLOAT:
        return 32;
    case SF_FORMAT_DOUBLE:
        return 64;
    default:
        return std::nullopt;
    }
}

// libsndfile's own name of a major format or subtype, for codes the label tables don't know.
std::string libraryName(int code) {
    SF_FORMAT_INFO formatInfo{};
    formatInfo.format = code;
    if (sf_command(nullptr, SFC_GET_FORMAT_INFO, &formatInfo, sizeof formatInfo) == 0 && formatInfo.name)
        return formatInfo.name;
    return std::to_string(code);
}

// What went wrong, in a few plain words. The commonest failures get ours; for the rest the
// library's text is used without its "Error : " label and final full stop, and a text that names
// the library itself gives way to the bare error number.
std::string reasonOf(SNDFILE* file) {
    switch (const int code = sf_error(file)) {
    case SF_ERR_UNRECOGNISED_FORMAT:
        return "not a known audio format";
    case SF_ERR_MALFORMED_FILE:
        return "the file is damaged";
    case SF_ERR_UNSUPPORTED_ENCODING:
        return "an encoding it doesn\u2019t know";
    default: {
        std::string text = sf_strerror(file);
        if (const size_t colon = text.find(" : "); colon != std::string::npos && colon < 16)
            text.erase(0, colon + 3);
        while (!text.empty() && (text.back() == '.' || std::isspace(static_cast<unsigned char>(text.back()))))
            text.pop_back();
        if (text.size() > 1 && std::isupper(static_cast<unsigned char>(text[0])) &&
            std::islower(static_cast<unsigned char>(text[1])))
            text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
        if (text.empty() || text.find("sndfile") != std::string::npos)
            return "error " + std::to_string(code);
        return text;
    }
    }
}

std::optional<int64_t> fileSizeOf(const std::filesystem::path& url) {
    std::error_code error;
    const auto size = std::filesystem::file_size(url, error);
    if (error)
        return std::nullopt;
    return static_cast<int64_t>(size);
}

/// One streaming read's buffers: frames interleaved as the library gives them, and the planes
/// handed to the callback.
struct ChunkBuffers {
    explicit ChunkBuffers(size_t channels)
        : interleaved(channels * static_cast<size_t>(decodeChunkFrames)),
          planes(channels, std::vector<float>(static_cast<size_t>(decodeChunkFrames))), views(channels) {}

    ChunkViews split(sf_count_t frames) {
        deinterleave(interleaved.data(), static_cast<size_t>(frames), planes, views);
        return ChunkViews(views);
    }

    std::vector<float> interleaved;
    std::vector<std::vector<float>> planes;
    std::vector<std::span<const float>> views;
};

} // namespace

SndFileReader::SndFileReader(std::filesystem::path url) : url_(std::move(url)) {
    // Opening a FIFO or a device would block or read for ever: only regular files go in.
    std::error_code error;
    const auto type = std::filesystem::status(url_, error).type();
    if (type == std::filesystem::file_type::directory)
        throw SndFileCannotDecode(cannotOpen + "it is a folder)");
    if (type != std::filesystem::file_type::regular)
        throw SndFileCannotDecode(cannotOpen + "not a regular file)");
    if (std::filesystem::file_size(url_, error) == 0 && !error)
        throw SndFileCannotDecode(cannotOpen + "the file is empty)");
    SF_INFO sfInfo{};
    file_ = sf_open(url_.c_str(), SFM_READ, &sfInfo);
    if (!file_)
        throw SndFileCannotDecode(cannotOpen + reasonOf(nullptr) + ")");
    format_ = sfInfo.format;
    channels_ = sfInfo.channels;
    sampleRate_ = sfInfo.samplerate;
    lengthFrames_ = std::max<sf_count_t>(0, sfInfo.frames);
    fileType_ = fileTypeOf(format_, url_);
    formatID_ = formatIDOf(format_);
    if (channels_ <= 0 || sampleRate_ <= 0) {
        sf_close(file_);
        throw SndFileCannotDecode(decoderName + " can\u2019t describe the audio stream");
    }
    // libsndfile gives an Opus stream the rate of the encoder's input, where every other decoder
    // gives 48 kHz; the tool road decodes it as everyone else does.
    if (formatID_ == CAFormat::opus) {
        sf_close(file_);
        throw SndFileCannotDecode(decoderName + " has no decoder for Opus at 48 kHz");
    }
}

SndFileReader::~SndFileReader() {
    if (file_)
        sf_close(file_);
}

AudioFileInfo SndFileReader::info(int64_t frameCount) const {
    AudioFileInfo result;
    result.url = url_;
    result.containerName =
        fileType_ ? FormatCodes::container(*fileType_) : libraryName(format_ & SF_FORMAT_TYPEMASK);
    result.codecName = formatID_ ? FormatCodes::codec(*formatID_) : libraryName(format_ & SF_FORMAT_SUBMASK);
    result.sampleRate = sampleRate_;
    result.channelCount = channels_;
    const bool pcm = formatID_ == linearPCM;
    const bool lossless = pcm || formatID_ == fourCC("alac") || formatID_ == CAFormat::flac;
    if (lossless)
        result.bitDepth = bitsOfSubtype(format_);
    const int subtype = format_ & SF_FORMAT_SUBMASK;
    result.isFloat = pcm && (subtype == SF_FORMAT_FLOAT || subtype == SF_FORMAT_DOUBLE);
    result.frameCount = frameCount;
    result.fileSize = fileSizeOf(url_);
    if (!pcm && result.fileSize && frameCount >= 1) {
        const double seconds = static_cast<double>(frameCount) / sampleRate_;
        result.bitRateKbps =
            static_cast<int>(std::lround(static_cast<double>(*result.fileSize) * 8.0 / seconds / 1000.0));
    }
    result.isLossy = !lossless;
    if (fileType_ && formatID_)
        result.nativeExportFormat = FormatCodes::nativeExportFormat(*fileType_, *formatID_);
    result.decoderName = "libsndfile";
    return result;
}

AudioFileInfo SndFileReader::decode(DecodeProgress progress, DecodeFormatCallback onFormat,
                                    DecodeChunkCallback onChunk) {
    ChunkBuffers buffers(static_cast<size_t>(channels_));

    int64_t count = 0;
    bool formatSent = false;
    const auto sendFormat = [&] {
        if (!formatSent) {
            formatSent = true;
            onFormat(info(lengthFrames_));
        }
    };
    for (;;) {
        const sf_count_t got = sf_readf_float(file_, buffers.interleaved.data(), decodeChunkFrames);
        if (got <= 0 && sf_error(file_) != SF_ERR_NO_ERROR) {
            const std::string text = decoderName + " decode error (" + reasonOf(file_) + ") after " +
                                     std::to_string(count) + " frames";
            if (count == 0)
                throw SndFileCannotDecode(text);
            throw HarluneError::decodeFailed(text);
        }
        if (got <= 0) {
            if (count == 0 && lengthFrames_ > 0)
                throw SndFileCannotDecode(decoderName + " decoded no audio");
            break;
        }
        sendFormat();
        onChunk(buffers.split(got));
        count += got;
        if (progress) {
            const double fraction =
                lengthFrames_ < 1
                    ? 0.0
                    : std::min(static_cast<double>(count) / static_cast<double>(lengthFrames_), 1.0);
            if (!(*progress)(fraction))
                throw HarluneError::cancelled();
        }
    }
    sendFormat();
    if (progress)
        (*progress)(1.0);
    return info(count);
}

bool SndFileReader::seeksExactly() const {
    if (isFlac())
        return true; // libFLAC seeks to the sample
    const int major = format_ & SF_FORMAT_TYPEMASK;
    switch (major) {
    case SF_FORMAT_WAV:
    case SF_FORMAT_WAVEX:
    case SF_FORMAT_RF64:
    case SF_FORMAT_W64:
    case SF_FORMAT_AIFF:
    case SF_FORMAT_CAF:
    case SF_FORMAT_AU:
        return formatID_ == linearPCM; // a seek is arithmetic on the data's offset
    default:
        return false;
    }
}

bool SndFileReader::isFlac() const {
    return (format_ & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC;
}

int64_t SndFileReader::decodeFrom(int64_t start, std::optional<int64_t> count, DecodeChunkCallback onChunk,
                                  FunctionRef<bool(int64_t)> tick) {
    if (sf_seek(file_, start, SEEK_SET) != start)
        throw HarluneError::decodeFailed(decoderName + " can\u2019t seek to frame " + std::to_string(start) +
                                         " (" + reasonOf(file_) + ")");
    ChunkBuffers buffers(static_cast<size_t>(channels_));
    int64_t delivered = 0;
    while (!count || delivered < *count) {
        const int64_t wanted = count ? std::min(decodeChunkFrames, *count - delivered) : decodeChunkFrames;
        const sf_count_t got = sf_readf_float(file_, buffers.interleaved.data(), wanted);
        if (got <= 0 && sf_error(file_) != SF_ERR_NO_ERROR)
            throw HarluneError::decodeFailed(decoderName + " decode error (" + reasonOf(file_) + ") after " +
                                             std::to_string(start + delivered) + " frames");
        if (got <= 0)
            break;
        onChunk(buffers.split(got));
        delivered += got;
        if (!tick(got))
            throw HarluneError::cancelled();
    }
    return delivered;
}

std::vector<std::string> SndFileReader::libraryExtensions() {
    std::vector<std::string> result;
    int count = 0;
    if (sf_command(nullptr, SFC_GET_FORMAT_MAJOR_COUNT, &count, sizeof count) != 0)
        return result;
    for (int i = 0; i < count; ++i) {
        SF_FORMAT_INFO formatInfo{};
        formatInfo.format = i;
        if (sf_command(nullptr, SFC_GET_FORMAT_MAJOR, &formatInfo, sizeof formatInfo) != 0 ||
            !formatInfo.extension)
            continue;
        std::string extension = formatInfo.extension;
        std::transform(extension.begin(), extension.end(), extension.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        result.push_back(std::move(extension));
    }
    return result;
}

} // namespace harlune
