#include "io/M4aWriter.h"

#include <algorithm>
#include <mutex>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include "base/HarluneError.h"
#include "base/Precondition.h"

namespace harlune {

namespace {

std::string describe(int status) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(status, text, sizeof text);
    return text;
}

const AVCodec* findEncoder(M4aWriter::Codec codec) {
    return codec == M4aWriter::Codec::alac ? avcodec_find_encoder(AV_CODEC_ID_ALAC)
                                           : avcodec_find_encoder_by_name("aac");
}

} // namespace

bool M4aWriter::isAvailable(Codec codec) {
    return findEncoder(codec) != nullptr && av_guess_format("ipod", nullptr, nullptr) != nullptr;
}

M4aWriter::M4aWriter(const std::filesystem::path& path, const Spec& spec) : spec_(spec) {
    HARLUNE_PRECONDITION(spec.channels >= 1 && spec.channels <= 8 && spec.sampleRate > 0,
                         "M4aWriter needs 1 to 8 channels and a rate");
    // The program keeps no log: the encoders' chatter on standard error would only confuse.
    static std::once_flag quiet;
    std::call_once(quiet, [] { av_log_set_level(AV_LOG_QUIET); });
    auto fail = [this](const std::string& what, int status) {
        release();
        return HarluneError::encodeFailed(what + " (" + describe(status) + ")");
    };

    const AVCodec* encoder = findEncoder(spec.codec);
    if (encoder == nullptr)
        throw HarluneError::encodeFailed(spec.codec == Codec::alac ? "no ALAC encoder in this build"
                                                                   : "no AAC encoder in this build");
    int status = avformat_alloc_output_context2(&format_, nullptr, "ipod", path.c_str());
    if (status < 0 || format_ == nullptr)
        throw fail("Creating the M4A file failed", status);
    stream_ = avformat_new_stream(format_, nullptr);
    codec_ = avcodec_alloc_context3(encoder);
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    if (stream_ == nullptr || codec_ == nullptr || packet_ == nullptr || frame_ == nullptr)
        throw fail("Creating the M4A file failed", AVERROR(ENOMEM));

    codec_->sample_rate = static_cast<int>(spec.sampleRate);
    codec_->time_base = AVRational{1, codec_->sample_rate};
    // The encoder's own list of layouts comes first: ALAC, for one, takes 3.0 but not 2.1.
    bool haveLayout = false;
    for (const AVChannelLayout* layout = encoder->ch_layouts; layout != nullptr && layout->nb_channels != 0;
         ++layout)
        if (layout->nb_channels == spec.channels) {
            haveLayout = av_channel_layout_copy(&codec_->ch_layout, layout) == 0;
            break;
        }
    if (!haveLayout)
        av_channel_layout_default(&codec_->ch_layout, spec.channels);
    if (spec.codec == Codec::alac) {
        const bool wide = spec.bitDepth != PCMBitDepth::int16;
        codec_->sample_fmt = wide ? AV_SAMPLE_FMT_S32P : AV_SAMPLE_FMT_S16P;
        codec_->bits_per_raw_sample = wide ? 24 : 16;
        quantizer_ = Quantizer(wide ? 24 : 16, spec.dither);
    } else {
        codec_->sample_fmt = AV_SAMPLE_FMT_FLTP;
        if (spec.bitRate)
            codec_->bit_rate = *spec.bitRate;
    }
    if (format_->oformat->flags & AVFMT_GLOBALHEADER)
        codec_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if ((status = avcodec_open2(codec_, encoder, nullptr)) < 0)
        throw fail("Creating the encoder failed", status);
    if (spec.codec == Codec::aac)
        appliedBitRate_ = static_cast<int>(codec_->bit_rate);

    if ((status = avcodec_parameters_from_context(stream_->codecpar, codec_)) < 0)
        throw fail("Creating the M4A file failed", status);
    stream_->time_base = codec_->time_base;
    if ((status = avio_open(&format_->pb, path.c_str(), AVIO_FLAG_WRITE)) < 0)
        throw fail("Creating the M4A file failed", status);
    if ((status = avformat_write_header(format_, nullptr)) < 0)
        throw fail("Creating the M4A file failed", status);
    headerWritten_ = true;

    frame_->nb_samples = codec_->frame_size > 0 ? codec_->frame_size : 4096;
    frame_->format = codec_->sample_fmt;
    frame_->sample_rate = codec_->sample_rate;
    if ((status = av_channel_layout_copy(&frame_->ch_layout, &codec_->ch_layout)) < 0 ||
        (status = av_frame_get_buffer(frame_, 0)) < 0)
        throw fail("Creating the M4A file failed", status);
}

M4aWriter::~M4aWriter() {
    abort();
}

void M4aWriter::consume(ChunkViews chunk) {
    if (chunk.empty() || chunk.front().empty())
        return;
    if (codec_ == nullptr)
        throw HarluneError::encodeFailed("the file is already closed");
    const size_t channels = chunk.size();
    HARLUNE_PRECONDITION(static_cast<int>(channels) == spec_.channels,
                         "M4aWriter got the wrong channel count");
    const size_t frames = chunk.front().size();
    if (quantizer_) {
        if (intBuffer_.size() < frames * channels)
            intBuffer_.resize(frames * channels);
        quantizer_->quantize(chunk, intBuffer_);
    }
    const size_t capacity = static_cast<size_t>(frame_->nb_samples);
    for (size_t done = 0; done < frames;) {
        if (frameFill_ == 0 && av_frame_make_writable(frame_) < 0)
            throw HarluneError::encodeFailed("Writing audio failed (out of memory)");
        const size_t fill = static_cast<size_t>(frameFill_);
        const size_t n = std::min(frames - done, capacity - fill);
        for (size_t c = 0; c < channels; ++c) {
            uint8_t* plane = frame_->extended_data[c];
            if (!quantizer_) {
                std::copy_n(chunk[c].data() + done, n, reinterpret_cast<float*>(plane) + fill);
            } else if (quantizer_->bits == 16) {
                auto* target = reinterpret_cast<int16_t*>(plane) + fill;
                for (size_t i = 0; i < n; ++i)
                    target[i] = static_cast<int16_t>(intBuffer_[(done + i) * channels + c] >> 16);
            } else {
                auto* target = reinterpret_cast<int32_t*>(plane) + fill;
                for (size_t i = 0; i < n; ++i)
                    target[i] = intBuffer_[(done + i) * channels + c];
            }
        }
        frameFill_ += static_cast<int>(n);
        done += n;
        if (static_cast<size_t>(frameFill_) == capacity)
            sendFrame(false);
    }
}

void M4aWriter::sendFrame(bool flush) {
    int status = 0;
    if (!flush) {
        const int full = frame_->nb_samples;
        frame_->nb_samples = frameFill_;
        frame_->pts = nextPts_;
        status = avcodec_send_frame(codec_, frame_);
        frame_->nb_samples = full;
        nextPts_ += frameFill_;
        frameFill_ = 0;
    } else {
        status = avcodec_send_frame(codec_, nullptr);
    }
    if (status < 0)
        throw HarluneError::encodeFailed("Writing audio failed (" + describe(status) + ")");
    while ((status = avcodec_receive_packet(codec_, packet_)) >= 0) {
        av_packet_rescale_ts(packet_, codec_->time_base, stream_->time_base);
        packet_->stream_index = stream_->index;
        status = av_write_frame(format_, packet_);
        av_packet_unref(packet_);
        if (status < 0)
            throw HarluneError::encodeFailed("Writing audio failed (" + describe(status) + ")");
    }
    if (status != AVERROR(EAGAIN) && status != AVERROR_EOF)
        throw HarluneError::encodeFailed("Writing audio failed (" + describe(status) + ")");
}

void M4aWriter::finish() {
    if (codec_ == nullptr)
        return;
    try {
        if (frameFill_ > 0)
            sendFrame(false);
        sendFrame(true);
        int status = av_write_trailer(format_);
        headerWritten_ = false;
        if (status >= 0)
            status = avio_closep(&format_->pb);
        if (status < 0)
            throw HarluneError::encodeFailed("Finalising the file failed (" + describe(status) + ")");
    } catch (...) {
        release();
        throw;
    }
    release();
}

void M4aWriter::abort() noexcept {
    release();
}

void M4aWriter::release() noexcept {
    if (format_ != nullptr) {
        if (format_->pb != nullptr)
            avio_closep(&format_->pb);
        avformat_free_context(format_);
        format_ = nullptr;
    }
    avcodec_free_context(&codec_);
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    headerWritten_ = false;
}

} // namespace harlune
