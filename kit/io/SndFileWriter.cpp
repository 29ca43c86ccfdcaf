#include "io/SndFileWriter.h"

#include "base/HarluneError.h"
#include "base/Precondition.h"
#include "io/ChannelLayouts.h"

#include <array>
#include <sndfile.h>
#include <string>
#include <string_view>
#include <utility>

namespace harlune {

namespace {

int majorFormat(SndFileWriter::Container container, int channels) {
    switch (container) {
    case SndFileWriter::Container::wave:
        // Only the extensible header can say which speaker each channel feeds.
        return channels > 2 ? SF_FORMAT_WAVEX : SF_FORMAT_WAV;
    case SndFileWriter::Container::rf64:
        return SF_FORMAT_RF64;
    case SndFileWriter::Container::aiff:
        return SF_FORMAT_AIFF;
    case SndFileWriter::Container::caf:
        return SF_FORMAT_CAF;
    case SndFileWriter::Container::flac:
        return SF_FORMAT_FLAC;
    }
    return SF_FORMAT_WAV;
}

int subtype(PCMBitDepth depth) {
    switch (depth) {
    case PCMBitDepth::int16:
        return SF_FORMAT_PCM_16;
    case PCMBitDepth::int24:
        return SF_FORMAT_PCM_24;
    case PCMBitDepth::int32:
        return SF_FORMAT_PCM_32;
    case PCMBitDepth::float32:
        return SF_FORMAT_FLOAT;
    }
    return SF_FORMAT_PCM_24;
}

// Speaker order of each channel count, matching the fold-down table.
std::vector<int> channelMap(int channels) {
    switch (channels) {
    case 1:
        return {SF_CHANNEL_MAP_MONO};
    case 2:
        return {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT};
    case 3:
        return {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER};
    case 4:
        return {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_REAR_LEFT,
                SF_CHANNEL_MAP_REAR_RIGHT};
    case 5:
        return {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER, SF_CHANNEL_MAP_REAR_LEFT,
                SF_CHANNEL_MAP_REAR_RIGHT};
    case 6:
        return {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT,     SF_CHANNEL_MAP_CENTER,
                SF_CHANNEL_MAP_LFE,  SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT};
    case 7:
        return {SF_CHANNEL_MAP_LEFT,      SF_CHANNEL_MAP_RIGHT,       SF_CHANNEL_MAP_CENTER,
                SF_CHANNEL_MAP_LFE,       SF_CHANNEL_MAP_REAR_CENTER, SF_CHANNEL_MAP_SIDE_LEFT,
                SF_CHANNEL_MAP_SIDE_RIGHT};
    case 8:
        return {SF_CHANNEL_MAP_LEFT,      SF_CHANNEL_MAP_RIGHT,     SF_CHANNEL_MAP_CENTER,
                SF_CHANNEL_MAP_LFE,       SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT,
                SF_CHANNEL_MAP_SIDE_LEFT, SF_CHANNEL_MAP_SIDE_RIGHT};
    default:
        return {};
    }
}

// libsndfile turns a channel map into an Apple layout tag only through its own table, which lacks
// the 6.1 and 7.1 arrangements in this order; for those the layout chunk of CAF ("chan") or AIFF
// ("CHAN") is written here: tag, bitmap and description count, big-endian, with no descriptions.
bool setLayoutChunk(SNDFILE* file, SndFileWriter::Container container, int channels) {
    const std::optional<unsigned> tag = ChannelLayouts::canonicalTag(channels);
    if (!tag || (container != SndFileWriter::Container::caf && container != SndFileWriter::Container::aiff))
        return false;
    std::array<unsigned char, 12> body{};
    for (size_t i = 0; i < 4; ++i)
        body[i] = static_cast<unsigned char>(*tag >> (24 - 8 * i));
    SF_CHUNK_INFO chunk{};
    const std::string_view id = container == SndFileWriter::Container::caf ? "chan" : "CHAN";
    id.copy(chunk.id, id.size());
    chunk.id_size = static_cast<unsigned>(id.size());
    chunk.datalen = static_cast<unsigned>(body.size());
    chunk.data = body.data(); // copied by libsndfile
    return sf_set_chunk(file, &chunk) == SF_ERR_NO_ERROR;
}

// libsndfile words a failed system call as "System error : REASON."; the reason alone reads
// better inside our own message.
std::string reasonOf(const char* text) {
    std::string reason = text != nullptr ? text : "unknown error";
    constexpr std::string_view prefix = "System error : ";
    if (reason.starts_with(prefix))
        reason.erase(0, prefix.size());
    if (!reason.empty() && reason.back() == '.')
        reason.pop_back();
    return reason;
}

} // namespace

const char* SndFileWriter::label(Container container) {
    switch (container) {
    case Container::wave:
        return "WAVE";
    case Container::rf64:
        return "RF64";
    case Container::aiff:
        return "AIFF";
    case Container::caf:
        return "CAF";
    case Container::flac:
        return "FLAC";
    }
    return "";
}

SndFileWriter::SndFileWriter(const std::filesystem::path& path, const Spec& spec) : channels_(spec.channels) {
    HARLUNE_PRECONDITION(spec.channels >= 1 && spec.sampleRate > 0,
                         "SndFileWriter needs channels and a rate");
    SF_INFO info{};
    info.samplerate = static_cast<int>(spec.sampleRate);
    info.channels = spec.channels;
    info.format = majorFormat(spec.container, spec.channels) | subtype(spec.bitDepth) |
                  (spec.container == Container::aiff ? SF_ENDIAN_BIG : SF_ENDIAN_FILE);
    file_ = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file_ == nullptr)
        throw HarluneError::encodeFailed(std::string("Creating the ") + label(spec.container) +
                                         " file failed (" + reasonOf(sf_strerror(nullptr)) + ")");

    // A container that refuses the layout still gets the audio.
    if (std::vector<int> map = channelMap(spec.channels); !map.empty() && spec.container != Container::flac)
        hasLayout_ = sf_command(file_, SFC_SET_CHANNEL_MAP_INFO, map.data(),
                                static_cast<int>(map.size() * sizeof(int))) == SF_TRUE;
    if (!hasLayout_)
        hasLayout_ = setLayoutChunk(file_, spec.container, spec.channels);
    if (spec.bitDepth == PCMBitDepth::float32)
        sf_command(file_, SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    if (spec.container == Container::flac) {
        double level = spec.compressionLevel / 8.0;
        sf_command(file_, SFC_SET_COMPRESSION_LEVEL, &level, sizeof level);
    }
    if (!isFloat(spec.bitDepth))
        quantizer_ = Quantizer(bits(spec.bitDepth), spec.dither);
}

SndFileWriter::~SndFileWriter() {
    abort();
}

void SndFileWriter::consume(ChunkViews chunk) {
    if (chunk.empty() || chunk.front().empty())
        return;
    if (file_ == nullptr)
        throw HarluneError::encodeFailed("the file is already closed");
    HARLUNE_PRECONDITION(static_cast<int>(chunk.size()) == channels_,
                         "SndFileWriter got the wrong channel count");
    const size_t frames = chunk.front().size();
    const size_t samples = frames * chunk.size();
    sf_count_t written = 0;
    if (quantizer_) {
        if (intBuffer_.size() < samples)
            intBuffer_.resize(samples);
        quantizer_->quantize(chunk, intBuffer_);
        written = sf_writef_int(file_, intBuffer_.data(), static_cast<sf_count_t>(frames));
    } else {
        if (floatBuffer_.size() < samples)
            floatBuffer_.resize(samples);
        const size_t channels = chunk.size();
        for (size_t c = 0; c < channels; ++c) {
            const float* source = chunk[c].data();
            float* target = floatBuffer_.data() + c;
            for (size_t f = 0; f < frames; ++f)
                target[f * channels] = source[f];
        }
        written = sf_writef_float(file_, floatBuffer_.data(), static_cast<sf_count_t>(frames));
    }
    if (written != static_cast<sf_count_t>(frames))
        throw HarluneError::encodeFailed(std::string("Writing audio failed (") +
                                         reasonOf(sf_strerror(file_)) + ")");
}

void SndFileWriter::finish() {
    if (file_ == nullptr)
        return;
    sf_private_tag* file = std::exchange(file_, nullptr);
    // libsndfile keeps the first write error; a header that could not be rewritten shows here.
    const int earlier = sf_error(file);
    const int status = sf_close(file);
    if (status != 0 || earlier != 0)
        throw HarluneError::encodeFailed(std::string("Finalising the file failed (") +
                                         reasonOf(sf_error_number(status != 0 ? status : earlier)) + ")");
}

void SndFileWriter::abort() noexcept {
    if (file_ != nullptr)
        sf_close(std::exchange(file_, nullptr));
}

} // namespace harlune
