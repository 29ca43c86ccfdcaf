#include "io/OggOpusWriter.h"

#include "base/HarluneError.h"
#include "base/Precondition.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <opus.h>
#include <random>
#include <unistd.h>
#include <utility>

namespace harlune {

namespace {

// The largest packet libopus makes: one frame of at most 1275 bytes per stream, with room.
constexpr size_t maxPacketSize = 4000;

void putLE(std::vector<uint8_t>& out, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

uint32_t randomSerial() {
    std::random_device device;
    std::uniform_int_distribution<uint32_t> distribution(1, 0xFFFFFFFFU);
    return distribution(device);
}

[[noreturn]] void writeFailed() {
    throw HarluneError::encodeFailed(std::string("writing Opus data failed: ") +
                                     std::strerror(errno != 0 ? errno : ENOSPC));
}

} // namespace

std::string OggOpusWriter::vendor() {
    return std::string("Harlune (") + opus_get_version_string() + ")";
}

std::vector<uint8_t> OggOpusWriter::headPacket(int channels, int preSkip) {
    std::vector<uint8_t> head{'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1, static_cast<uint8_t>(channels)};
    putLE(head, static_cast<uint64_t>(std::clamp(preSkip, 0, 65535)), 2);
    putLE(head, 48000, 4);
    putLE(head, 0, 2); // output gain
    head.push_back(0); // mapping family: mono or stereo
    return head;
}

std::vector<uint8_t> OggOpusWriter::tagsPacket() {
    const std::string text = vendor();
    std::vector<uint8_t> tags{'O', 'p', 'u', 's', 'T', 'a', 'g', 's'};
    putLE(tags, text.size(), 4);
    tags.insert(tags.end(), text.begin(), text.end());
    putLE(tags, 0, 4); // no user comments
    return tags;
}

OggOpusWriter::OggOpusWriter(const std::filesystem::path& path, int channels, int bitRate)
    : channels_(channels), ogg_(randomSerial()), pending_(static_cast<size_t>(packetFrames * channels)),
      outBuffer_(maxPacketSize) {
    HARLUNE_PRECONDITION(channels == 1 || channels == 2, "OggOpusWriter takes one or two channels");
    int status = OPUS_OK;
    encoder_ = opus_encoder_create(48000, channels, OPUS_APPLICATION_AUDIO, &status);
    if (encoder_ == nullptr || status != OPUS_OK) {
        release();
        throw HarluneError::encodeFailed(std::string("Creating the Opus encoder failed (") +
                                         opus_strerror(status) + ")");
    }
    opus_encoder_ctl(encoder_, OPUS_SET_COMPLEXITY(10));
    if ((status = opus_encoder_ctl(encoder_, OPUS_SET_BITRATE(std::max(bitRate, 1)))) != OPUS_OK) {
        release();
        throw HarluneError::encodeFailed(std::string("Setting the Opus bitrate failed (") +
                                         opus_strerror(status) + ")");
    }
    opus_int32 applied = 0;
    if (opus_encoder_ctl(encoder_, OPUS_GET_BITRATE(&applied)) == OPUS_OK)
        appliedBitRate_ = applied;
    opus_int32 lookahead = 0;
    if (opus_encoder_ctl(encoder_, OPUS_GET_LOOKAHEAD(&lookahead)) == OPUS_OK)
        preSkip_ = lookahead;

    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd_ < 0) {
        release();
        throw HarluneError::encodeFailed("can\u2019t create " + path.filename().string());
    }
    try {
        // The two header packets each stand on a page of their own, at granule position 0.
        auto output = [this](std::span<const uint8_t> page) {
            writePage(page);
        };
        ogg_.add(headPacket(channels, preSkip_), 0, output);
        ogg_.flush(false, nullptr, output);
        ogg_.add(tagsPacket(), 0, output);
        ogg_.flush(false, nullptr, output);
    } catch (...) {
        release();
        throw;
    }
}

OggOpusWriter::~OggOpusWriter() {
    release();
}

void OggOpusWriter::writePage(std::span<const uint8_t> page) {
    if (fd_ < 0)
        throw HarluneError::encodeFailed("the file is closed");
    const uint8_t* data = page.data();
    size_t size = page.size();
    while (size > 0) {
        const ssize_t n = ::write(fd_, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            writeFailed();
        data += n;
        size -= static_cast<size_t>(n);
    }
}

void OggOpusWriter::encodePending() {
    const opus_int32 bytes = opus_encode_float(encoder_, pending_.data(), packetFrames, outBuffer_.data(),
                                               static_cast<opus_int32>(outBuffer_.size()));
    if (bytes < 0)
        throw HarluneError::encodeFailed(std::string("Encoding Opus failed (") + opus_strerror(bytes) + ")");
    pendingFrames_ = 0;
    packetFramesSoFar_ += packetFrames;
    auto output = [this](std::span<const uint8_t> page) {
        writePage(page);
    };
    ogg_.add(std::span<const uint8_t>(outBuffer_.data(), static_cast<size_t>(bytes)),
             static_cast<uint64_t>(packetFramesSoFar_), output);
}

void OggOpusWriter::consume(ChunkViews chunk) {
    if (chunk.empty() || chunk.front().empty())
        return;
    if (encoder_ == nullptr)
        throw HarluneError::encodeFailed("the encoder is closed");
    HARLUNE_PRECONDITION(static_cast<int>(chunk.size()) == channels_,
                         "OggOpusWriter got the wrong channel count");
    const size_t frames = chunk.front().size();
    const auto channels = static_cast<size_t>(channels_);
    totalInputFrames_ += static_cast<int64_t>(frames);
    for (size_t done = 0; done < frames;) {
        const size_t fill = static_cast<size_t>(pendingFrames_);
        const size_t n = std::min(frames - done, static_cast<size_t>(packetFrames) - fill);
        for (size_t c = 0; c < channels; ++c) {
            const float* source = chunk[c].data() + done;
            float* target = pending_.data() + fill * channels + c;
            for (size_t i = 0; i < n; ++i)
                target[i * channels] = source[i];
        }
        pendingFrames_ += static_cast<int>(n);
        done += n;
        if (pendingFrames_ == packetFrames)
            encodePending();
    }
}

void OggOpusWriter::finish() {
    if (encoder_ == nullptr)
        throw HarluneError::encodeFailed("the encoder is closed");
    try {
        // Silence after the end, until the packets cover the encoder's delay and all the input;
        // the last packet is a whole one, padded.
        const int64_t needed = preSkip_ + totalInputFrames_;
        while (pendingFrames_ > 0 || packetFramesSoFar_ < needed) {
            std::fill(pending_.begin() + static_cast<ptrdiff_t>(pendingFrames_) * channels_, pending_.end(),
                      0.0f);
            encodePending();
        }
        // End trimming: a decoder drops what the last packet holds beyond the audio.
        const auto last = static_cast<uint64_t>(std::min(needed, packetFramesSoFar_));
        auto output = [this](std::span<const uint8_t> page) {
            writePage(page);
        };
        ogg_.flush(true, &last, output);
        opus_encoder_destroy(std::exchange(encoder_, nullptr));
        if (::close(std::exchange(fd_, -1)) != 0)
            throw HarluneError::encodeFailed(std::string("closing the Opus file failed: ") +
                                             std::strerror(errno));
    } catch (...) {
        release();
        throw;
    }
}

void OggOpusWriter::abort() noexcept {
    release();
}

void OggOpusWriter::release() noexcept {
    if (encoder_ != nullptr)
        opus_encoder_destroy(std::exchange(encoder_, nullptr));
    if (fd_ >= 0)
        ::close(std::exchange(fd_, -1));
}

} // namespace harlune
