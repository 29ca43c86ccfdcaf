// The frame decoder must take every frame that real encoders write, with every subframe kind and
// stereo coding they use, and give libsndfile's samples exactly; it must refuse what fails a
// check rather than guess.
#include "io/FlacFrameDecoder.h"

#include "io/AudioDecoder.h"
#include "io/FlacChecksums.h"
#include "io/IoTestSupport.h"

#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <random>

namespace harlune {
namespace {

using testing::TempDir;

/// The STREAMINFO block and where the first frame starts, read by hand from the file's header.
struct StreamStart {
    FlacStreamShape shape;
    size_t firstFrame = 0;
    int64_t totalFrames = 0;
};

StreamStart readStreamStart(const std::vector<uint8_t>& file) {
    StreamStart start;
    EXPECT_EQ(std::string(file.begin(), file.begin() + 4), "fLaC");
    size_t at = 4;
    while (true) {
        const bool last = (file[at] & 0x80) != 0;
        const int type = file[at] & 0x7f;
        const size_t length = (size_t{file[at + 1]} << 16) | (size_t{file[at + 2]} << 8) | file[at + 3];
        if (type == 0) {
            const uint8_t* info = &file[at + 4];
            const int minBlock = (info[0] << 8) | info[1];
            const int maxBlock = (info[2] << 8) | info[3];
            start.shape.channels = ((info[12] >> 1) & 7) + 1;
            start.shape.bitsPerSample = (((info[12] & 1) << 4) | (info[13] >> 4)) + 1;
            start.shape.maxBlockFrames = maxBlock;
            start.shape.fixedBlockFrames = minBlock == maxBlock ? maxBlock : 0;
            start.totalFrames = (int64_t{info[13] & 0x0f} << 32) | (int64_t{info[14]} << 24) |
                                (int64_t{info[15]} << 16) | (int64_t{info[16]} << 8) | info[17];
        }
        at += 4 + length;
        if (last)
            break;
    }
    start.firstFrame = at;
    return start;
}

/// Every frame of the file through the decoder, as floats scaled as libsndfile scales; counts
/// the frames refused (the walk stops at the first).
struct Walk {
    std::vector<std::vector<float>> planes;
    int refused = 0;
    bool contiguous = true;
};

Walk walkFrames(const std::filesystem::path& path) {
    std::vector<uint8_t> file = testing::readBytes(path);
    const StreamStart start = readStreamStart(file);
    const size_t size = file.size();
    file.resize(size + FlacFrameDecoder::readPadding);
    FlacFrameDecoder decoder(start.shape);
    Walk walk;
    walk.planes.resize(static_cast<size_t>(start.shape.channels));
    const float scale = std::ldexp(1.0f, -(start.shape.bitsPerSample - 1));
    size_t at = start.firstFrame;
    int64_t next = 0;
    while (at < size) {
        const auto frame = decoder.decode(std::span<const uint8_t>(file.data() + at, size - at));
        if (!frame) {
            ++walk.refused;
            break;
        }
        walk.contiguous = walk.contiguous && frame->firstSample == next;
        next += frame->blockFrames;
        at += frame->bytes;
        for (int c = 0; c < start.shape.channels; ++c)
            for (int i = 0; i < frame->blockFrames; ++i)
                walk.planes[static_cast<size_t>(c)].push_back(static_cast<float>(decoder.plane(c)[i]) *
                                                              scale);
    }
    return walk;
}

void runTool(const std::string& tool, const std::vector<std::string>& arguments) {
    const auto result = Subprocess::run("/usr/bin/" + tool, arguments);
    ASSERT_EQ(result.status, 0) << result.stderrText;
}

/// Noise, tones, a stretch of silence (constant subframes) and a stretch of full-scale noise
/// (verbatim subframes), with channels that differ, so that encoders use every tool they have.
/// (Commas inside the expressions are escaped from the filter graph.)
std::vector<std::string> mixedSource(const std::string& channels = "stereo") {
    const std::string left = "if(between(t\\,1\\,1.5)\\,0\\,if(between(t\\,2\\,2.4)\\,1.9*(random(0)-0.5)\\,"
                             "0.4*sin(2*PI*440*t)+0.2*(random(0)-0.5)))";
    const std::string right = "if(between(t\\,1\\,1.5)\\,0\\,if(between(t\\,2\\,2.4)\\,1.9*(random(1)-0.5)\\,"
                              "0.3*sin(2*PI*1000*t+1)+0.2*(random(1)-0.5)+0.1*sin(2*PI*90*t)))";
    const std::string layout = channels == "mono" ? left : left + "|" + right;
    return {"-f", "lavfi", "-i", "aevalsrc=" + layout + ":s=44100:d=3.1"};
}

TEST(FlacFrameDecoder, TakesEveryFrameRealEncodersWriteAndGivesLibsndfilesSamples) {
    TempDir dir;
    // By ffmpeg's encoder: every prediction kind and stereo coding, bit depths, block sizes.
    std::map<std::string, std::vector<std::string>> byFFmpeg = {
        {"16-default.flac", {"-sample_fmt", "s16"}},
        {"24-default.flac", {"-sample_fmt", "s32", "-bits_per_raw_sample", "24"}},
        {"16-fixed.flac", {"-sample_fmt", "s16", "-lpc_type", "fixed"}},
        {"16-none.flac", {"-sample_fmt", "s16", "-lpc_type", "none"}},
        {"24-cholesky-32.flac",
         {"-sample_fmt", "s32", "-bits_per_raw_sample", "24", "-lpc_type", "cholesky",
          "-max_prediction_order", "32", "-lpc_coeff_precision", "15", "-compression_level", "12"}},
        {"16-small-blocks.flac", {"-sample_fmt", "s16", "-frame_size", "192"}},
        {"16-left-side.flac", {"-sample_fmt", "s16", "-ch_mode", "left_side"}},
        {"16-right-side.flac", {"-sample_fmt", "s16", "-ch_mode", "right_side"}},
        {"24-mid-side.flac", {"-sample_fmt", "s32", "-bits_per_raw_sample", "24", "-ch_mode", "mid_side"}},
        {"16-independent.flac", {"-sample_fmt", "s16", "-ch_mode", "indep"}},
        {"16-level0.flac", {"-sample_fmt", "s16", "-compression_level", "0"}},
    };
    for (const auto& [name, options] : byFFmpeg) {
        std::vector<std::string> arguments = mixedSource();
        arguments.insert(arguments.end(), {"-c:a", "flac"});
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.push_back((dir / name).string());
        testing::ffmpeg(arguments);
    }
    // A 24-bit file holding 16-bit audio: every subframe has wasted bits.
    {
        std::vector<std::string> arguments = mixedSource();
        arguments.insert(arguments.end(), {"-af", "aformat=s16", "-c:a", "flac", "-sample_fmt", "s32",
                                           "-bits_per_raw_sample", "24", (dir / "24-wasted.flac").string()});
        testing::ffmpeg(arguments);
    }
    // By the reference encoder, from WAV files.
    for (const std::string channels : {"stereo", "mono"}) {
        std::vector<std::string> arguments = mixedSource(channels);
        arguments.insert(arguments.end(), {"-c:a", "pcm_s16le", (dir / (channels + ".wav")).string()});
        testing::ffmpeg(arguments);
    }
    {
        std::vector<std::string> arguments = mixedSource();
        arguments.insert(arguments.end(), {"-c:a", "pcm_s24le", (dir / "stereo24.wav").string()});
        testing::ffmpeg(arguments);
    }
    const std::map<std::string, std::vector<std::string>> byFlac = {
        {"flac-0.flac", {"-0", (dir / "stereo.wav").string()}},
        {"flac-8.flac", {"-8", (dir / "stereo.wav").string()}},
        {"flac-8-24.flac", {"-8", (dir / "stereo24.wav").string()}},
        {"flac-lax-32.flac",
         {"--lax", "-l", "32", "-b", "4608", "-r", "15", (dir / "stereo24.wav").string()}},
        {"flac-mono.flac", {"-5", (dir / "mono.wav").string()}},
        {"flac-16-frames.flac", {"--lax", "-b", "16", "-l", "4", (dir / "stereo.wav").string()}},
    };
    for (const auto& [name, options] : byFlac) {
        std::vector<std::string> arguments = {"-s", "-f", "-o", (dir / name).string()};
        arguments.insert(arguments.end(), options.begin(), options.end());
        runTool("flac", arguments);
    }

    std::vector<std::string> names;
    for (const auto& [name, options] : byFFmpeg)
        names.push_back(name);
    for (const auto& [name, options] : byFlac)
        names.push_back(name);
    names.push_back("24-wasted.flac");
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const Walk walk = walkFrames(dir / name);
        EXPECT_EQ(walk.refused, 0);
        EXPECT_TRUE(walk.contiguous);
        const auto reference = AudioDecoder::decodeToArrays(dir / name);
        ASSERT_EQ(walk.planes.size(), reference.channels.size());
        EXPECT_EQ(walk.planes[0].size(), reference.channels[0].size());
        EXPECT_TRUE(walk.planes == reference.channels) << "the samples differ from libsndfile's";
    }
}

TEST(FlacFrameDecoder, DamagedFramesAreRefusedOrReadWithinTheirBytes) {
    TempDir dir;
    std::vector<std::string> arguments = mixedSource();
    arguments.insert(arguments.end(),
                     {"-t", "1.2", "-c:a", "flac", "-sample_fmt", "s32", "-bits_per_raw_sample", "24",
                      "-frame_size", "1024", (dir / "a.flac").string()});
    testing::ffmpeg(arguments);
    const std::vector<uint8_t> file = testing::readBytes(dir / "a.flac");
    const StreamStart start = readStreamStart(file);
    // Where each frame starts and ends, from a clean walk.
    std::vector<std::pair<size_t, size_t>> frames;
    {
        std::vector<uint8_t> padded = file;
        padded.resize(file.size() + FlacFrameDecoder::readPadding);
        FlacFrameDecoder decoder(start.shape);
        for (size_t at = start.firstFrame; at < file.size();) {
            const auto frame = decoder.decode(std::span<const uint8_t>(padded.data() + at, file.size() - at));
            ASSERT_TRUE(frame.has_value());
            frames.emplace_back(at, frame->bytes);
            at += frame->bytes;
        }
    }
    ASSERT_GT(frames.size(), 40u);

    // Spoilt bytes, cut ends and noise after a good header, each in a buffer exactly as long as
    // the frame and its padding, so that the address sanitizer sees any read past them.
    std::mt19937 random(11);
    FlacFrameDecoder decoder(start.shape);
    int accepted = 0;
    for (int trial = 0; trial < 3000; ++trial) {
        const auto [at, size] = frames[random() % frames.size()];
        std::vector<uint8_t> bytes(file.begin() + static_cast<std::ptrdiff_t>(at),
                                   file.begin() + static_cast<std::ptrdiff_t>(at + size));
        switch (trial % 3) {
        case 0:
            for (int spoil = 1 + static_cast<int>(random() % 8); spoil > 0; --spoil)
                bytes[2 + random() % (bytes.size() - 2)] = static_cast<uint8_t>(random());
            break;
        case 1:
            bytes.resize(random() % bytes.size());
            break;
        default:
            for (size_t i = 12; i < bytes.size(); ++i)
                bytes[i] = static_cast<uint8_t>(random());
            break;
        }
        const size_t length = bytes.size();
        bytes.resize(length + FlacFrameDecoder::readPadding);
        const auto frame = decoder.decode(std::span<const uint8_t>(bytes.data(), length));
        if (frame) {
            ++accepted;
            EXPECT_LE(frame->bytes, length);
        }
    }
    // A spoilt frame passes both checksums by chance about once in 2^16.
    EXPECT_LE(accepted, 2);
}

// ---- frames built by hand ------------------------------------------------------------------

/// Big-endian bits, as a FLAC frame holds them.
class BitWriter {
public:
    void put(uint64_t value, int bits) {
        for (int i = bits - 1; i >= 0; --i)
            putBit(static_cast<int>((value >> i) & 1));
    }
    void putSigned(int64_t value, int bits) {
        put(static_cast<uint64_t>(value) & ((uint64_t{1} << bits) - 1), bits);
    }
    void putRice(int32_t value, int parameter) {
        const uint32_t folded =
            value >= 0 ? static_cast<uint32_t>(value) * 2 : static_cast<uint32_t>(-value) * 2 - 1;
        for (uint32_t q = folded >> parameter; q > 0; --q)
            putBit(0);
        putBit(1);
        put(folded & ((1u << parameter) - 1), parameter);
    }
    void alignToByte() {
        while (filled_ != 0)
            putBit(0);
    }
    std::vector<uint8_t>& bytes() { return bytes_; }

private:
    void putBit(int bit) {
        if (filled_ == 0)
            bytes_.push_back(0);
        bytes_.back() = static_cast<uint8_t>(bytes_.back() | (bit << (7 - filled_)));
        filled_ = (filled_ + 1) % 8;
    }
    std::vector<uint8_t> bytes_;
    int filled_ = 0;
};

/// The checksums bit by bit, as the format defines them.
uint16_t slowCrc(const std::vector<uint8_t>& bytes, size_t count, int width, uint32_t polynomial) {
    uint32_t crc = 0;
    const uint32_t top = 1u << (width - 1);
    const uint32_t mask = (width == 32) ? ~0u : (1u << width) - 1;
    for (size_t i = 0; i < count; ++i) {
        crc ^= uint32_t{bytes[i]} << (width - 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = ((crc & top) ? (crc << 1) ^ polynomial : crc << 1) & mask;
    }
    return static_cast<uint16_t>(crc);
}

TEST(FlacChecksums, MatchTheCatalogueAndABitwiseReferenceAtEveryLength) {
    const std::string check = "123456789";
    const std::vector<uint8_t> checkBytes(check.begin(), check.end());
    // The catalogued check values of CRC-8/SMBUS and CRC-16/UMTS, which FLAC uses.
    EXPECT_EQ(flacCrc8(checkBytes), 0xf4);
    EXPECT_EQ(flacCrc16(checkBytes), 0xfee8);
    EXPECT_EQ(flacCrc16Portable(checkBytes), 0xfee8);

    std::mt19937 random(7);
    std::vector<uint8_t> bytes(70000);
    for (auto& byte : bytes)
        byte = static_cast<uint8_t>(random());
    // Every length around the 16-byte folds and the 8-byte table steps, and a long frame's.
    std::vector<size_t> lengths;
    for (size_t length = 0; length <= 200; ++length)
        lengths.push_back(length);
    lengths.push_back(bytes.size());
    for (const size_t length : lengths) {
        const std::span<const uint8_t> span(bytes.data() + 3, length - (length == bytes.size() ? 3 : 0));
        const std::vector<uint8_t> copy(span.begin(), span.end());
        const uint16_t expected = slowCrc(copy, copy.size(), 16, 0x8005);
        EXPECT_EQ(flacCrc16(span), expected) << length;
        EXPECT_EQ(flacCrc16Portable(span), expected) << length;
        EXPECT_EQ(flacCrc8(span), slowCrc(copy, copy.size(), 8, 0x07)) << length;
    }
}

/// A mono 16-bit frame of 32 samples (block size code 6: one byte after the number), frame
/// number `number`, whose subframe `writeSubframe` writes; with both checksums.
std::vector<uint8_t> handFrame(uint32_t number, const std::function<void(BitWriter&)>& writeSubframe) {
    BitWriter writer;
    writer.put(0xfff8, 16); // sync, fixed blocks
    writer.put(0x6, 4);     // block size: 8 bits follow
    writer.put(0x9, 4);     // 44.1 kHz
    writer.put(0x0, 4);     // one channel
    writer.put(0x4, 3);     // 16 bits
    writer.put(0, 1);
    writer.put(number, 8); // number < 128: one byte
    writer.put(32 - 1, 8); // the block size
    writer.put(slowCrc(writer.bytes(), writer.bytes().size(), 8, 0x07), 8);
    writeSubframe(writer);
    writer.alignToByte();
    writer.put(slowCrc(writer.bytes(), writer.bytes().size(), 16, 0x8005), 16);
    return writer.bytes();
}

std::optional<FlacFrameSpan> decodeHandFrame(FlacFrameDecoder& decoder, std::vector<uint8_t> bytes) {
    const size_t size = bytes.size();
    bytes.resize(size + FlacFrameDecoder::readPadding);
    return decoder.decode(std::span<const uint8_t>(bytes.data(), size));
}

constexpr FlacStreamShape handShape{
    .channels = 1, .bitsPerSample = 16, .maxBlockFrames = 32, .fixedBlockFrames = 32};

TEST(FlacFrameDecoder, ReadsEscapedPartitionsLongRunsAndWideParametersAsWritten) {
    // A fixed order-2 subframe whose residual has four partitions: escaped raw samples, a
    // zero-width escape, a Rice partition with a long run of zeros, and one with parameter 14.
    std::vector<int32_t> residual(32);
    for (int i = 0; i < 32; ++i)
        residual[static_cast<size_t>(i)] = (i * 37 % 23) - 11;
    for (int i = 16; i < 24; ++i)
        residual[static_cast<size_t>(i)] = 0; // the zero-width escape's samples
    residual[24] = 3000;                      // 6000 zeros before its stop bit at parameter 0
    residual[30] = -20000;
    const std::vector<int32_t> warmUp = {100, -50};
    const auto frame = handFrame(5, [&](BitWriter& w) {
        w.put(0, 1);
        w.put(0b001010, 6); // fixed, order 2
        w.put(0, 1);
        for (const int32_t sample : warmUp)
            w.putSigned(sample, 16);
        w.put(0, 2); // 4-bit parameters
        w.put(2, 4); // four partitions of 8
        w.put(15, 4);
        w.put(6, 5); // raw, 6 bits each
        for (int i = 2; i < 8; ++i)
            w.putSigned(residual[static_cast<size_t>(i)], 6);
        w.put(15, 4);
        w.put(0, 5); // raw, 0 bits: all zero
        w.put(15, 4);
        w.put(0, 5);
        w.put(0, 4);
        w.putRice(residual[24], 0);
        for (int i = 25; i < 32; ++i)
            w.putRice(residual[static_cast<size_t>(i)], 0);
    });
    // The partitions as written: 8 - order raw, 8 zero-width, 8 zero-width, 8 Rice. Samples 8 to
    // 23 are zeros in the residual, and 24 to 31 come from the Rice partition.
    for (int i = 8; i < 24; ++i)
        residual[static_cast<size_t>(i)] = 0;
    std::vector<int32_t> expected(32);
    expected[0] = warmUp[0];
    expected[1] = warmUp[1];
    for (size_t i = 2; i < 32; ++i)
        expected[i] = residual[i] + 2 * expected[i - 1] - expected[i - 2];

    FlacFrameDecoder decoder(handShape);
    const auto span = decodeHandFrame(decoder, frame);
    ASSERT_TRUE(span.has_value());
    EXPECT_EQ(span->firstSample, 5 * 32);
    EXPECT_EQ(span->blockFrames, 32);
    EXPECT_EQ(span->bytes, frame.size());
    EXPECT_EQ(std::vector<int32_t>(decoder.plane(0), decoder.plane(0) + 32), expected);

    // A Rice parameter of 14 in the 5-bit coding, against a small run.
    const std::vector<int32_t> wide = {12345, -16000, 7, 0, -1, 16383, -16384, 99};
    const auto wideFrame = handFrame(0, [&](BitWriter& w) {
        w.put(0, 1);
        w.put(0b001000, 6); // fixed, order 0
        w.put(0, 1);
        w.put(1, 2); // 5-bit parameters
        w.put(2, 4); // four partitions of 8
        for (int partition = 0; partition < 4; ++partition) {
            w.put(14, 5);
            for (const int32_t value : wide)
                w.putRice(value, 14);
        }
    });
    ASSERT_TRUE(decodeHandFrame(decoder, wideFrame).has_value());
    for (int i = 0; i < 32; ++i)
        EXPECT_EQ(decoder.plane(0)[i], wide[static_cast<size_t>(i % 8)]) << i;
}

TEST(FlacFrameDecoder, RefusesWhatFailsAChecksumARuleOrTheStreamsShape) {
    const auto constant = [](int32_t value, int type) {
        return [value, type](BitWriter& w) {
            w.put(0, 1);
            w.put(static_cast<uint64_t>(type), 6);
            w.put(0, 1);
            w.putSigned(value, 16);
        };
    };
    const auto good = handFrame(1, constant(-1234, 0));
    FlacFrameDecoder decoder(handShape);
    ASSERT_TRUE(decodeHandFrame(decoder, good).has_value());
    EXPECT_EQ(decoder.plane(0)[31], -1234);

    // Any one bit flipped after the sync code fails a checksum or a rule.
    for (size_t bit = 16; bit < good.size() * 8; ++bit) {
        std::vector<uint8_t> spoilt = good;
        spoilt[bit / 8] = static_cast<uint8_t>(spoilt[bit / 8] ^ (0x80 >> (bit % 8)));
        EXPECT_FALSE(decodeHandFrame(decoder, spoilt).has_value()) << "bit " << bit;
    }
    // Cut short anywhere.
    for (size_t size = 0; size < good.size(); ++size)
        EXPECT_FALSE(
            decodeHandFrame(decoder, std::vector<uint8_t>(good.begin(), good.begin() + size)).has_value());
    // A reserved subframe type, with checksums that hold.
    EXPECT_FALSE(decodeHandFrame(decoder, handFrame(1, constant(0, 0b000010))).has_value());
    // Another channel count or bit depth than the stream's.
    FlacFrameDecoder stereo(
        {.channels = 2, .bitsPerSample = 16, .maxBlockFrames = 32, .fixedBlockFrames = 32});
    EXPECT_FALSE(decodeHandFrame(stereo, good).has_value());
    FlacFrameDecoder deeper(
        {.channels = 1, .bitsPerSample = 24, .maxBlockFrames = 32, .fixedBlockFrames = 32});
    EXPECT_FALSE(decodeHandFrame(deeper, good).has_value());
    // A block longer than the stream's longest.
    FlacFrameDecoder shorter(
        {.channels = 1, .bitsPerSample = 16, .maxBlockFrames = 16, .fixedBlockFrames = 16});
    EXPECT_FALSE(decodeHandFrame(shorter, good).has_value());
}

} // namespace
} // namespace harlune
