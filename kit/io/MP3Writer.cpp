#include "io/MP3Writer.h"

#include "base/HarluneError.h"
#include "base/Precondition.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <utility>

namespace harlune {

namespace {

constexpr size_t maxPiece = 32768;

bool writeAll(int fd, const unsigned char* data, size_t size, off_t* at) {
    while (size > 0) {
        const ssize_t n = at != nullptr ? ::pwrite(fd, data, size, *at) : ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
        if (at != nullptr)
            *at += n;
    }
    return true;
}

} // namespace

MP3Writer::MP3Writer(const std::filesystem::path& path, std::shared_ptr<const LameLibrary> lib,
                     double sampleRate, int channels, int bitRateKbps)
    : lib_(std::move(lib)), channels_(channels), mp3buf_(49184) {
    HARLUNE_PRECONDITION(lib_ != nullptr, "MP3Writer needs the LAME library");
    HARLUNE_PRECONDITION(channels == 1 || channels == 2, "MP3Writer takes one or two channels");
    gfp_ = lib_->lame_init();
    if (gfp_ == nullptr)
        throw HarluneError::encodeFailed("LAME failed to initialise");
    const int rate = static_cast<int>(sampleRate);
    lib_->lame_set_in_samplerate(gfp_, rate);
    lib_->lame_set_out_samplerate(gfp_, rate);
    lib_->lame_set_num_channels(gfp_, channels);
    lib_->lame_set_mode(gfp_, channels == 1 ? 3 : 1); // mono, joint stereo
    lib_->lame_set_VBR(gfp_, 0);                      // constant bit rate
    lib_->lame_set_brate(gfp_, bitRateKbps);
    lib_->lame_set_quality(gfp_, 2);
    lib_->lame_set_bWriteVbrTag(gfp_, 1);
    if (const int status = lib_->lame_init_params(gfp_); status < 0) {
        release();
        throw HarluneError::encodeFailed("LAME rejected " + std::to_string(bitRateKbps) + " kbps at " +
                                         std::to_string(rate) + " Hz \u00D7 " + std::to_string(channels) +
                                         " (error " + std::to_string(status) + ")");
    }
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd_ < 0) {
        const std::string reason = std::strerror(errno);
        release();
        throw HarluneError::encodeFailed("can\u2019t create " + path.filename().string() + ": " + reason);
    }
}

MP3Writer::~MP3Writer() {
    release();
}

void MP3Writer::ensureBuffer(size_t frames) {
    const size_t needed = static_cast<size_t>(static_cast<double>(frames) * 1.25) + 8224;
    if (mp3buf_.size() < needed) {
        mp3buf_.clear();
        mp3buf_.shrink_to_fit();
        mp3buf_.resize(needed);
    }
}

void MP3Writer::emit(int n, const char* what) {
    if (n < 0)
        throw HarluneError::encodeFailed(std::string("LAME ") + what + " failed (error " + std::to_string(n) +
                                         ")");
    if (n > 0 && fd_ >= 0 && !writeAll(fd_, mp3buf_.data(), static_cast<size_t>(n), nullptr))
        throw HarluneError::encodeFailed(std::string("writing MP3 data failed: ") +
                                         std::strerror(errno != 0 ? errno : ENOSPC));
}

void MP3Writer::consume(ChunkViews chunk) {
    if (gfp_ == nullptr)
        throw HarluneError::encodeFailed("the encoder is closed");
    if (chunk.empty() || chunk.front().empty())
        return;
    HARLUNE_PRECONDITION(static_cast<int>(chunk.size()) == channels_,
                         "MP3Writer got the wrong channel count");
    const size_t frames = chunk.front().size();
    for (size_t done = 0; done < frames;) {
        const size_t n = std::min(maxPiece, frames - done);
        ensureBuffer(n);
        const float* left = chunk[0].data() + done;
        const float* right = channels_ == 2 ? chunk[1].data() + done : left;
        emit(lib_->lame_encode_buffer_ieee_float(gfp_, left, right, static_cast<int>(n), mp3buf_.data(),
                                                 static_cast<int>(mp3buf_.size())),
             "encoding");
        done += n;
    }
}

void MP3Writer::finish() {
    if (gfp_ == nullptr)
        return;
    try {
        ensureBuffer(0);
        emit(lib_->lame_encode_flush(gfp_, mp3buf_.data(), static_cast<int>(mp3buf_.size())), "flush");
        // LAME reserved the first frame for this tag (bWriteVbrTag); it carries the true length
        // with the encoder's delay and padding, which is what makes playback gapless.
        const size_t n = lib_->lame_get_lametag_frame(gfp_, mp3buf_.data(), mp3buf_.size());
        if (n > 0 && n <= mp3buf_.size()) {
            off_t at = 0;
            if (!writeAll(fd_, mp3buf_.data(), n, &at))
                throw HarluneError::encodeFailed(std::string("writing the LAME tag failed: ") +
                                                 std::strerror(errno != 0 ? errno : ENOSPC));
        }
        lib_->lame_close(gfp_);
        gfp_ = nullptr;
        const int fd = std::exchange(fd_, -1);
        if (::close(fd) != 0)
            throw HarluneError::encodeFailed(std::string("closing the MP3 file failed: ") +
                                             std::strerror(errno));
    } catch (...) {
        release();
        throw;
    }
}

void MP3Writer::abort() noexcept {
    release();
}

void MP3Writer::release() noexcept {
    if (gfp_ != nullptr)
        lib_->lame_close(std::exchange(gfp_, nullptr));
    if (fd_ >= 0)
        ::close(std::exchange(fd_, -1));
}

} // namespace harlune
