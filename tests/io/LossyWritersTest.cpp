// Ogg Opus and MP3: framing checked byte by byte, lengths checked through the real ffmpeg.
#include "EncodeTestSupport.h"
#include "base/HarluneError.h"
#include "io/AudioEncoder.h"
#include "io/LameLibrary.h"
#include "io/OggOpusWriter.h"
#include "io/OggPageWriter.h"
#include "support/TestAudio.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::Planes;

uint64_t readLE(const std::vector<uint8_t>& bytes, size_t at, int count) {
    uint64_t value = 0;
    for (int i = count - 1; i >= 0; --i)
        value = (value << 8) | bytes[at + static_cast<size_t>(i)];
    return value;
}

struct OggPage {
    uint8_t flags = 0;
    uint64_t granule = 0;
    uint32_t serial = 0;
    uint32_t sequence = 0;
    std::vector<uint8_t> lacing;
    std::vector<std::vector<uint8_t>> packets;
    size_t bodySize = 0;
    bool crcMatches = false;
};

// A straightforward reader of Ogg pages, enough to check what the writer made.
std::vector<OggPage> parsePages(const std::vector<uint8_t>& bytes) {
    std::vector<OggPage> pages;
    size_t at = 0;
    while (at + 27 <= bytes.size()) {
        EXPECT_EQ(std::string(bytes.begin() + static_cast<ptrdiff_t>(at),
                              bytes.begin() + static_cast<ptrdiff_t>(at) + 4),
                  "OggS");
        OggPage page;
        page.flags = bytes[at + 5];
        page.granule = readLE(bytes, at + 6, 8);
        page.serial = static_cast<uint32_t>(readLE(bytes, at + 14, 4));
        page.sequence = static_cast<uint32_t>(readLE(bytes, at + 18, 4));
        const auto crc = static_cast<uint32_t>(readLE(bytes, at + 22, 4));
        const size_t segments = bytes[at + 26];
        page.lacing.assign(bytes.begin() + static_cast<ptrdiff_t>(at + 27),
                           bytes.begin() + static_cast<ptrdiff_t>(at + 27 + segments));
        size_t body = at + 27 + segments;
        std::vector<uint8_t> packet;
        for (const uint8_t lace : page.lacing) {
            packet.insert(packet.end(), bytes.begin() + static_cast<ptrdiff_t>(body),
                          bytes.begin() + static_cast<ptrdiff_t>(body + lace));
            body += lace;
            page.bodySize += lace;
            if (lace < 255) {
                page.packets.push_back(std::move(packet));
                packet.clear();
            }
        }
        EXPECT_TRUE(packet.empty()) << "a packet continues past its page";
        std::vector<uint8_t> copy(bytes.begin() + static_cast<ptrdiff_t>(at),
                                  bytes.begin() + static_cast<ptrdiff_t>(body));
        std::fill(copy.begin() + 22, copy.begin() + 26, 0);
        page.crcMatches = OggCRC::checksum(copy) == crc;
        pages.push_back(std::move(page));
        at = body;
    }
    EXPECT_EQ(at, bytes.size());
    return pages;
}

// Bit-by-bit CRC, straight from the definition, as the reference for the table-driven one.
uint32_t slowCRC(const std::vector<uint8_t>& data) {
    uint32_t crc = 0;
    for (const uint8_t byte : data) {
        crc ^= static_cast<uint32_t>(byte) << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x80000000U) ? (crc << 1) ^ 0x04C11DB7U : crc << 1;
    }
    return crc;
}

TEST(OggCRC, MatchesTheBitwiseDefinition) {
    std::vector<uint8_t> data(1000);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 31 + 7);
    EXPECT_EQ(OggCRC::checksum(data), slowCRC(data));
    EXPECT_EQ(OggCRC::checksum(std::vector<uint8_t>{}), 0u);
}

TEST(OggPageWriter, PacketsNeverSpanPagesAndPagesStopNearTheTarget) {
    std::vector<uint8_t> stream;
    auto output = [&](std::span<const uint8_t> page) {
        stream.insert(stream.end(), page.begin(), page.end());
    };
    OggPageWriter writer(0x12345678);
    const std::vector<size_t> sizes{255, 0, 1000, 3000, 100, 4096, 510, 20};
    for (size_t i = 0; i < sizes.size(); ++i)
        writer.add(std::vector<uint8_t>(sizes[i], static_cast<uint8_t>(i)), i + 1, output);
    writer.flush(true, nullptr, output);
    const auto pages = parsePages(stream);
    std::vector<std::vector<uint8_t>> packets;
    for (const auto& page : pages) {
        EXPECT_TRUE(page.crcMatches);
        EXPECT_EQ(page.serial, 0x12345678u);
        if (page.packets.size() > 1) {
            EXPECT_LE(page.bodySize, 4096u);
        }
        packets.insert(packets.end(), page.packets.begin(), page.packets.end());
    }
    ASSERT_EQ(packets.size(), sizes.size());
    for (size_t i = 0; i < sizes.size(); ++i)
        EXPECT_EQ(packets[i], std::vector<uint8_t>(sizes[i], static_cast<uint8_t>(i)));
    EXPECT_EQ(pages.front().lacing[0], 255); // a packet of exactly 255 bytes: segments 255 and 0
    EXPECT_EQ(pages.front().lacing[1], 0);
    EXPECT_EQ(pages.front().flags, 2);
    EXPECT_EQ(pages.back().flags, 4);
    EXPECT_EQ(pages.back().granule, sizes.size());
    for (size_t i = 0; i < pages.size(); ++i)
        EXPECT_EQ(pages[i].sequence, i);
}

class OggOpusFiles : public ::testing::Test {
protected:
    testing::TemporaryFolder folder;
};

TEST_F(OggOpusFiles, HeadersPagesAndGranulesFollowTheOggOpusRules) {
    const int64_t frames = 48000 * 2 + 123;
    const ArraySource source(testing::noisePlanes(2, frames, 8), 48000);
    const auto path = folder / "noise.opus";
    AudioEncoder::write(source, std::nullopt, path, EncodeSettings::defaults(ExportFormat::opus));
    const auto pages = parsePages(testing::readBytes(path));
    ASSERT_GE(pages.size(), 4u);
    for (const auto& page : pages) {
        EXPECT_TRUE(page.crcMatches) << page.sequence;
        EXPECT_EQ(page.serial, pages.front().serial);
    }
    EXPECT_EQ(pages[0].flags, 2);
    EXPECT_EQ(pages.back().flags, 4);
    ASSERT_EQ(pages[0].packets.size(), 1u);
    ASSERT_EQ(pages[1].packets.size(), 1u);
    EXPECT_EQ(pages[0].granule, 0u);
    EXPECT_EQ(pages[1].granule, 0u);

    const auto& head = pages[0].packets[0];
    ASSERT_EQ(head.size(), 19u);
    EXPECT_EQ(std::string(head.begin(), head.begin() + 8), "OpusHead");
    EXPECT_EQ(head[8], 1);
    EXPECT_EQ(head[9], 2);
    const auto preSkip = readLE(head, 10, 2);
    EXPECT_GT(preSkip, 0u);
    EXPECT_EQ(readLE(head, 12, 4), 48000u);

    const auto& tags = pages[1].packets[0];
    const auto vendorLength = readLE(tags, 8, 4);
    const std::string vendor(tags.begin() + 12, tags.begin() + 12 + static_cast<ptrdiff_t>(vendorLength));
    EXPECT_TRUE(vendor.starts_with("Harlune (libopus ")) << vendor;
    EXPECT_EQ(tags.size(), 12 + vendorLength + 4);

    // Every audio packet is 960 frames; the last granule trims the padding of the last one.
    size_t packets = 0;
    for (size_t i = 2; i < pages.size(); ++i)
        packets += pages[i].packets.size();
    EXPECT_EQ(pages.back().granule - preSkip, static_cast<uint64_t>(frames));
    EXPECT_GE(packets * 960, preSkip + static_cast<uint64_t>(frames));
    EXPECT_LT(packets * 960, preSkip + static_cast<uint64_t>(frames) + 960);
    for (size_t i = 3; i < pages.size(); ++i)
        EXPECT_GE(pages[i].granule, pages[i - 1].granule);
}

TEST_F(OggOpusFiles, DecodersGiveBackExactlyTheInputLengthAndOpusinfoHasNoComplaint) {
    if (!testing::haveTool("ffmpeg"))
        GTEST_SKIP() << "needs ffmpeg";
    for (const int64_t frames : {int64_t{1}, int64_t{960 - 312}, int64_t{48000 + 17}}) {
        const ArraySource source(testing::noisePlanes(2, frames, 9), 48000);
        const auto path = folder / ("length" + std::to_string(frames) + ".opus");
        AudioEncoder::write(source, std::nullopt, path, EncodeSettings::defaults(ExportFormat::opus));
        const auto decoded = testing::decodeWithFFmpeg(path, 2);
        ASSERT_TRUE(decoded);
        EXPECT_EQ((*decoded)[0].size(), static_cast<size_t>(frames));
        if (testing::haveTool("opusinfo")) {
            const auto report =
                testing::runCommand("opusinfo " + testing::shellQuoted(path.string()) + " 2>&1");
            ASSERT_TRUE(report) << "opusinfo refused the file";
            EXPECT_EQ(report->find("WARNING"), std::string::npos) << *report;
            EXPECT_EQ(report->find("rror"), std::string::npos) << *report;
        }
    }
}

TEST_F(OggOpusFiles, MonoHeadAndTwoExportsDifferOnlyInTheSerial) {
    const ArraySource mono(testing::noisePlanes(1, 20000, 3), 48000);
    const auto a = folder / "a.opus";
    const auto b = folder / "b.opus";
    AudioEncoder::write(mono, std::nullopt, a, EncodeSettings::defaults(ExportFormat::opus));
    AudioEncoder::write(mono, std::nullopt, b, EncodeSettings::defaults(ExportFormat::opus));
    const auto pagesA = parsePages(testing::readBytes(a));
    const auto pagesB = parsePages(testing::readBytes(b));
    EXPECT_EQ(pagesA[0].packets[0][9], 1);
    ASSERT_EQ(pagesA.size(), pagesB.size());
    for (size_t i = 0; i < pagesA.size(); ++i)
        EXPECT_EQ(pagesA[i].packets, pagesB[i].packets) << i;
    EXPECT_NE(pagesA[0].serial, pagesB[0].serial);
}

TEST_F(OggOpusFiles, TheBitRateIsTheNearestTheEncoderTakes) {
    OggOpusWriter stereo(folder / "fast.opus", 2, 160000);
    EXPECT_EQ(stereo.appliedBitRate(), 160000);
    stereo.abort();
    OggOpusWriter tiny(folder / "tiny.opus", 1, 100);
    EXPECT_EQ(tiny.appliedBitRate(), 500); // libopus's floor
    tiny.abort();
}

// MP3 -----------------------------------------------------------------------------------------

class MP3Files : public ::testing::Test {
protected:
    void SetUp() override { saved = LameLibrary::searchPaths(); }
    void TearDown() override { LameLibrary::setSearchPaths(saved); }
    std::vector<std::filesystem::path> saved;
    testing::TemporaryFolder folder;
};

TEST_F(MP3Files, WithoutTheLibraryMP3IsNotOfferedAndAWriteFails) {
    LameLibrary::setSearchPaths({folder / "libmp3lame.so.0", "/nonexistent/libmp3lame.so.0"});
    EXPECT_FALSE(AudioEncoder::isAvailable(ExportFormat::mp3));
    EXPECT_FALSE(AudioEncoder::lameVersion());
    const ArraySource source(testing::noisePlanes(2, 1000), 44100);
    const auto destination = folder / "out.mp3";
    try {
        AudioEncoder::write(source, std::nullopt, destination, EncodeSettings::defaults(ExportFormat::mp3));
        FAIL() << "the write went through";
    } catch (const HarluneError& error) {
        EXPECT_EQ(error.kind(), HarluneError::Kind::codecUnavailable);
        EXPECT_EQ(error.detail(), "MP3 export needs the LAME library (libmp3lame)");
    }
    EXPECT_TRUE(folder.entries().empty());
}

TEST_F(MP3Files, ALibraryWithoutTheFunctionsIsSkippedForTheNext) {
    const auto real = LameLibrary::shared();
    if (real == nullptr)
        GTEST_SKIP() << "libmp3lame is not installed";
    const auto other = std::filesystem::path("/usr/lib/x86_64-linux-gnu/libopus.so.0");
    if (!std::filesystem::exists(other))
        GTEST_SKIP() << "no stand-in library";
    LameLibrary::setSearchPaths({"relative/libmp3lame.so.0", other, real->path});
    const auto chosen = LameLibrary::shared();
    ASSERT_NE(chosen, nullptr);
    EXPECT_EQ(chosen->path, real->path);
    EXPECT_FALSE(chosen->versionString.empty());
    EXPECT_EQ(AudioEncoder::lameVersion(), chosen->versionString);
}

TEST_F(MP3Files, TheLameTagGivesDecodersTheExactLength) {
    if (LameLibrary::shared() == nullptr)
        GTEST_SKIP() << "libmp3lame is not installed";
    if (!testing::haveTool("ffmpeg"))
        GTEST_SKIP() << "needs ffmpeg";
    // More than one chunk of 32768 frames, and a mono file.
    for (const int channels : {2, 1}) {
        const int64_t frames = 44100 * 2 + 777;
        const ArraySource source(testing::noisePlanes(channels, frames, 4), 44100);
        const auto path = folder / ("out" + std::to_string(channels) + ".mp3");
        AudioEncoder::write(source, std::nullopt, path, EncodeSettings::defaults(ExportFormat::mp3));
        const auto bytes = testing::readBytes(path);
        ASSERT_GT(bytes.size(), 200u);
        // The first frame is the Xing/LAME tag: "Info" for a constant bit rate, then "LAME".
        const std::string head(bytes.begin(), bytes.begin() + 200);
        EXPECT_NE(head.find("Info"), std::string::npos);
        EXPECT_NE(head.find("LAME"), std::string::npos);
        const auto decoded = testing::decodeWithFFmpeg(path, channels);
        ASSERT_TRUE(decoded);
        EXPECT_EQ((*decoded)[0].size(), static_cast<size_t>(frames));
        EXPECT_EQ(testing::probeStream(path, "bit_rate"), "320000");
    }
}

TEST_F(MP3Files, AFortyEightKilohertzRequestOfNinetySixComesOutAtFortyEight) {
    if (LameLibrary::shared() == nullptr || !testing::haveTool("ffprobe"))
        GTEST_SKIP() << "needs libmp3lame and ffprobe";
    const ArraySource source(testing::noisePlanes(2, 4800), 48000);
    EncodeSettings settings = EncodeSettings::defaults(ExportFormat::mp3);
    settings.sampleRate = 96000;
    const auto path = folder / "rate.mp3";
    AudioEncoder::write(source, std::nullopt, path, settings);
    EXPECT_EQ(testing::probeStream(path, "sample_rate"), "48000");
}

} // namespace
} // namespace harlune
