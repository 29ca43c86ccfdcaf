// FLAC files encoded in stretches on several threads must be one valid stream: the reference
// tool checks every frame's checksum and the MD5 of the samples, and libsndfile must read back
// exactly what libsndfile's own FLAC writer writes from the same audio.
#include "io/FlacWriter.h"

#include "io/AudioDecoder.h"
#include "io/DecodeInParts.h"
#include "io/EncodeTestSupport.h"
#include "io/SndFileWriter.h"

#include <cmath>
#include <gtest/gtest.h>
#include <random>

namespace harlune {
namespace {

using testing::TempDir;

/// Noise with tones, channels that differ, in planes.
std::vector<std::vector<float>> signal(int channels, int64_t frames) {
    std::mt19937 random(static_cast<unsigned>(channels * 1000 + frames % 1000));
    std::uniform_real_distribution<float> noise(-0.2f, 0.2f);
    std::vector<std::vector<float>> planes(static_cast<size_t>(channels),
                                           std::vector<float>(static_cast<size_t>(frames)));
    for (int c = 0; c < channels; ++c)
        for (int64_t i = 0; i < frames; ++i)
            planes[static_cast<size_t>(c)][static_cast<size_t>(i)] =
                0.5f * std::sin(0.01f * static_cast<float>((c + 1) * i)) + noise(random);
    return planes;
}

/// Feeds the planes to `sink` in chunks of an odd size, so that chunks straddle the stretches.
void feed(ChunkSink& sink, const std::vector<std::vector<float>>& planes) {
    const size_t frames = planes.front().size();
    std::vector<std::span<const float>> views(planes.size());
    for (size_t at = 0; at < frames; at += 10007) {
        const size_t count = std::min<size_t>(10007, frames - at);
        for (size_t c = 0; c < planes.size(); ++c)
            views[c] = std::span<const float>(planes[c].data() + at, count);
        sink.consume(ChunkViews(views));
    }
    sink.finish();
}

void expectReferenceToolAccepts(const std::filesystem::path& file) {
    const auto result = Subprocess::run("/usr/bin/flac", {"-t", "-s", file.string()});
    EXPECT_EQ(result.status, 0) << "flac -t: " << result.stderrText;
}

TEST(FlacWriter, StretchesJoinIntoOneStreamThatTheReferenceToolAndLibsndfileAccept) {
    TempDir dir;
    const int64_t stretch = int64_t{FlacWriter::blocksPerStretch} * 4096;
    struct Case {
        int channels;
        PCMBitDepth depth;
        int64_t frames;
        bool dither;
    };
    const std::vector<Case> cases = {
        {2, PCMBitDepth::int24, 2 * stretch + 1234, true}, // three stretches, the last short
        {2, PCMBitDepth::int16, stretch, true},            // exactly one
        {1, PCMBitDepth::int24, stretch + 1, false},       // one sample into a second
        {6, PCMBitDepth::int16, 100000, false},            // one short stretch, six channels
        {2, PCMBitDepth::int24, 4095, true},               // less than one block
        {1, PCMBitDepth::int16, 1, false},                 // one sample
    };
    for (const Case& c : cases) {
        const std::string name = std::to_string(c.channels) + "ch-" +
                                 std::to_string(c.depth == PCMBitDepth::int16 ? 16 : 24) + "-" +
                                 std::to_string(c.frames);
        SCOPED_TRACE(name);
        const auto planes = signal(c.channels, c.frames);
        FlacWriter ours(
            dir / (name + ".flac"),
            {.sampleRate = 48000, .channels = c.channels, .bitDepth = c.depth, .dither = c.dither});
        feed(ours, planes);
        SndFileWriter theirs(dir / (name + "-sndfile.flac"), {.container = SndFileWriter::Container::flac,
                                                              .sampleRate = 48000,
                                                              .channels = c.channels,
                                                              .bitDepth = c.depth,
                                                              .dither = c.dither});
        feed(theirs, planes);

        expectReferenceToolAccepts(dir / (name + ".flac"));
        const auto decoded = AudioDecoder::decodeToArrays(dir / (name + ".flac"));
        const auto reference = AudioDecoder::decodeToArrays(dir / (name + "-sndfile.flac"));
        EXPECT_EQ(decoded.info.frameCount, c.frames);
        EXPECT_EQ(decoded.info.bitDepth, reference.info.bitDepth);
        EXPECT_TRUE(decoded.channels == reference.channels)
            << "the samples differ from libsndfile's writer's";
        // Read in parts, as the editor opens a long file: the seeks find frames by their numbers.
        if (c.frames > stretch) {
            std::vector<std::vector<std::vector<float>>> parts;
            const auto onFormat = [&](const AudioFileInfo& info, int count) {
                parts.assign(static_cast<size_t>(count),
                             std::vector<std::vector<float>>(static_cast<size_t>(info.channelCount)));
            };
            const auto onChunk = [&](int part, ChunkViews chunk) {
                for (size_t ch = 0; ch < chunk.size(); ++ch)
                    parts[static_cast<size_t>(part)][ch].insert(parts[static_cast<size_t>(part)][ch].end(),
                                                                chunk[ch].begin(), chunk[ch].end());
            };
            AudioDecoder::decodeInParts(dir / (name + ".flac"), std::nullopt, onFormat, onChunk,
                                        {.maxParts = 3, .minPartFrames = 65536});
            ASSERT_EQ(parts.size(), 3u);
            std::vector<std::vector<float>> joined(static_cast<size_t>(c.channels));
            for (const auto& part : parts)
                for (size_t ch = 0; ch < part.size(); ++ch)
                    joined[ch].insert(joined[ch].end(), part[ch].begin(), part[ch].end());
            EXPECT_TRUE(joined == reference.channels) << "read in parts, the file gives other samples";
        }
        // The independent reader agrees on the length.
        const auto probe =
            Subprocess::run(testing::systemFFprobe, {"-v", "error", "-show_entries", "stream=duration_ts",
                                                     "-of", "csv=p=0", (dir / (name + ".flac")).string()});
        EXPECT_EQ(std::stoll(std::string(probe.stdoutData.begin(), probe.stdoutData.end())), c.frames);
    }
}

TEST(FlacWriter, AnEmptyStreamIsStillAFileTheToolsRead) {
    TempDir dir;
    FlacWriter writer(dir / "empty.flac",
                      {.sampleRate = 44100, .channels = 2, .bitDepth = PCMBitDepth::int16});
    writer.finish();
    expectReferenceToolAccepts(dir / "empty.flac");
}

TEST(FlacWriter, AFullDiskFailsWithTheSystemsReason) {
    testing::ScratchMount disk("size=256k");
    if (!disk.mounted())
        GTEST_SKIP() << "no tmpfs can be mounted here";
    FlacWriter writer(disk / "full.flac",
                      {.sampleRate = 48000, .channels = 2, .bitDepth = PCMBitDepth::int24});
    const HarluneError error = testing::errorFrom([&] { feed(writer, signal(2, 48000 * 20)); });
    EXPECT_EQ(error.kind(), HarluneError::Kind::encodeFailed);
    EXPECT_NE(std::string(error.what()).find("No space left on device"), std::string::npos) << error.what();
}

TEST(FlacWriter, SettingsLibFlacRefusesFailBeforeAnyFileExists) {
    TempDir dir;
    const HarluneError error = testing::errorFrom([&] {
        FlacWriter writer(dir / "x.flac",
                          {.sampleRate = 2'000'000, .channels = 2, .bitDepth = PCMBitDepth::int16});
    });
    EXPECT_EQ(error.kind(), HarluneError::Kind::encodeFailed);
    EXPECT_TRUE(dir.entries().empty());
}

} // namespace
} // namespace harlune
