#pragma once

#include "io/ChunkSink.h"
#include "io/OggPageWriter.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct OpusEncoder;

namespace harlune {

/// The end stage for Ogg Opus (RFC 7845): libopus makes packets of 960 frames at 48 kHz, and the
/// Ogg framing is our own. The stream's pre-skip is the encoder's real lookahead, and the last
/// page's granule position trims the padding of the last packet, so a decoder gives back exactly
/// the input's length.
class OggOpusWriter final : public ChunkSink {
public:
    static constexpr int packetFrames = 960;

    /// `channels` is 1 or 2, the rate always 48000 Hz. `bitRate` in bits per second; the encoder
    /// takes the nearest it can. Creates the file. Throws `HarluneError.encodeFailed`.
    OggOpusWriter(const std::filesystem::path& path, int channels, int bitRate);
    ~OggOpusWriter() override;

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

    /// The bit rate really set, bits per second.
    std::optional<int> appliedBitRate() const { return appliedBitRate_; }
    /// Encoder delay in 48 kHz frames.
    int preSkip() const { return preSkip_; }
    /// "Harlune (libopus 1.x)": the vendor string of the tags packet.
    static std::string vendor();
    /// The "OpusHead" and "OpusTags" packets.
    static std::vector<uint8_t> headPacket(int channels, int preSkip);
    static std::vector<uint8_t> tagsPacket();

private:
    void encodePending();
    void writePage(std::span<const uint8_t> page);
    void release() noexcept;

    int channels_;
    OpusEncoder* encoder_ = nullptr;
    int fd_ = -1;
    OggPageWriter ogg_;
    std::vector<float> pending_; ///< interleaved input of the packet being gathered
    int pendingFrames_ = 0;
    int preSkip_ = 312;
    int64_t totalInputFrames_ = 0;
    int64_t packetFramesSoFar_ = 0; ///< frames the packets represent, pre-skip included
    std::vector<uint8_t> outBuffer_;
    std::optional<int> appliedBitRate_;
};

} // namespace harlune
