// Reading a file in parts at once must give exactly what one stream gives: the same samples in
// the same order, whatever the codec, bit depth or damage; short and lossy files stay one part.
#include "io/DecodeInParts.h"

#include "io/AudioDecoder.h"
#include "io/IoTestSupport.h"

#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace harlune {
namespace {

using testing::TempDir;

/// What the parts delivered, joined in part order, and how.
struct PartsResult {
    AudioFileInfo info;
    int formats = 0;
    int parts = 0;
    std::vector<std::vector<float>> joined;
    bool oneThreadPerPart = true;
};

PartsResult decodeParts(const std::filesystem::path& file, AudioDecoder::PartPlan plan,
                        DecodeProgress progress = std::nullopt) {
    PartsResult result;
    std::vector<std::vector<std::vector<float>>> parts; // part, channel, frames
    std::vector<std::thread::id> threads;
    std::mutex lock;
    const auto onFormat = [&](const AudioFileInfo& info, int partCount) {
        ++result.formats;
        result.parts = partCount;
        parts.assign(static_cast<size_t>(partCount),
                     std::vector<std::vector<float>>(static_cast<size_t>(info.channelCount)));
        threads.assign(static_cast<size_t>(partCount), std::thread::id());
    };
    const auto onChunk = [&](int part, ChunkViews chunk) {
        auto& planes = parts[static_cast<size_t>(part)];
        for (size_t c = 0; c < planes.size(); ++c)
            planes[c].insert(planes[c].end(), chunk[c].begin(), chunk[c].end());
        const std::lock_guard guard(lock);
        auto& thread = threads[static_cast<size_t>(part)];
        if (thread == std::thread::id())
            thread = std::this_thread::get_id();
        result.oneThreadPerPart = result.oneThreadPerPart && thread == std::this_thread::get_id();
    };
    result.info = AudioDecoder::decodeInParts(file, progress, onFormat, onChunk, plan);
    result.joined.resize(parts.empty() ? 0 : parts.front().size());
    for (const auto& part : parts)
        for (size_t c = 0; c < part.size(); ++c)
            result.joined[c].insert(result.joined[c].end(), part[c].begin(), part[c].end());
    return result;
}

constexpr AudioDecoder::PartPlan threeParts{.maxParts = 3, .minPartFrames = 65536};

/// 7.3 s of stereo with noise in it, so that FLAC frames differ from one another.
std::vector<std::string> noisyStereo() {
    return {"-f", "lavfi", "-i",
            "aevalsrc=0.4*sin(2*PI*440*t)+0.3*(random(0)-0.5)|0.3*sin(2*PI*1000*t)+0.3*(random(1)-0.5):s="
            "48000:d=7.3"};
}

TEST(DecodeInParts, SeekableFilesSplitIntoPartsThatJoinToTheOneStreamDecode) {
    TempDir dir;
    const std::map<std::string, std::vector<std::string>> encodings = {
        {"16.flac", {"-c:a", "flac", "-sample_fmt", "s16"}},
        {"24.flac", {"-c:a", "flac", "-sample_fmt", "s32", "-bits_per_raw_sample", "24"}},
        {"24.wav", {"-c:a", "pcm_s24le"}},
        {"float.wav", {"-c:a", "pcm_f32le"}},
        {"16.aiff", {"-c:a", "pcm_s16be"}},
        // Frames of 4608: the parts start inside a frame, which the seek must cut at the sample.
        {"4608.flac", {"-c:a", "flac", "-frame_size", "4608"}},
        {"6ch.flac",
         {"-af", "pan=5.1|c0=c0|c1=c1|c2=0.5*c0|c3=0.2*c1|c4=c0-c1|c5=0.7*c1", "-c:a", "flac", "-sample_fmt",
          "s16"}},
    };
    for (const auto& [name, codec] : encodings) {
        SCOPED_TRACE(name);
        std::vector<std::string> arguments = noisyStereo();
        arguments.insert(arguments.end(), codec.begin(), codec.end());
        arguments.push_back((dir / name).string());
        testing::ffmpeg(arguments);
        const auto whole = AudioDecoder::decodeToArrays(dir / name);
        ASSERT_EQ(whole.info.frameCount, 350400);
        const PartsResult parted = decodeParts(dir / name, threeParts);
        EXPECT_EQ(parted.formats, 1);
        EXPECT_EQ(parted.parts, 3);
        EXPECT_TRUE(parted.oneThreadPerPart);
        EXPECT_EQ(parted.info.frameCount, whole.info.frameCount);
        EXPECT_EQ(parted.info.codecName, whole.info.codecName);
        ASSERT_EQ(parted.joined.size(), whole.channels.size());
        EXPECT_TRUE(parted.joined == whole.channels) << "the parts differ from the one-stream decode";
    }
}

TEST(DecodeInParts, ShortOrLossyFilesStayOnePart) {
    TempDir dir;
    std::vector<std::string> arguments = noisyStereo();
    arguments.insert(arguments.end(), {"-c:a", "libvorbis", (dir / "a.ogg").string()});
    testing::ffmpeg(arguments);
    const PartsResult ogg = decodeParts(dir / "a.ogg", threeParts);
    EXPECT_EQ(ogg.parts, 1);
    EXPECT_TRUE(ogg.joined == AudioDecoder::decodeToArrays(dir / "a.ogg").channels);

    arguments = testing::stereoSource(3);
    arguments.push_back((dir / "short.flac").string());
    testing::ffmpeg(arguments);
    EXPECT_EQ(decodeParts(dir / "short.flac", {.maxParts = 3, .minPartFrames = 100'000}).parts, 1);
    // Parts are whole 65536-frame blocks: 144000 frames make three, but 60000 frames only one.
    EXPECT_EQ(decodeParts(dir / "short.flac", {.maxParts = 8, .minPartFrames = 20000}).parts, 3);
    arguments = testing::stereoSource(1.25);
    arguments.push_back((dir / "shorter.flac").string());
    testing::ffmpeg(arguments);
    EXPECT_EQ(decodeParts(dir / "shorter.flac", {.maxParts = 8, .minPartFrames = 20000}).parts, 1);
}

TEST(DecodeInParts, ADamagedFileGivesWhatOneStreamGives) {
    TempDir dir;
    std::vector<std::string> arguments = noisyStereo();
    arguments.push_back((dir / "whole.flac").string());
    testing::ffmpeg(arguments);
    const std::string bytes = testing::readFile(dir / "whole.flac");
    // Cut inside the second part: its seek or its reads fail. Bytes spoilt inside the second
    // part: a frame fails its check. Either way the file is read over as one stream.
    testing::writeFile(dir / "cut.flac", bytes.substr(0, bytes.size() * 45 / 100));
    std::string spoilt = bytes;
    for (size_t i = spoilt.size() * 45 / 100; i < spoilt.size() * 45 / 100 + 64; ++i)
        spoilt[i] = static_cast<char>(spoilt[i] ^ 0x5a);
    testing::writeFile(dir / "spoilt.flac", spoilt);
    for (const std::string name : {"cut.flac", "spoilt.flac"}) {
        SCOPED_TRACE(name);
        std::optional<AudioDecoder::DecodedArrays> whole;
        std::optional<HarluneError::Kind> wholeError;
        try {
            whole = AudioDecoder::decodeToArrays(dir / name);
        } catch (const HarluneError& error) {
            wholeError = error.kind();
        }
        try {
            const PartsResult parted = decodeParts(dir / name, threeParts);
            ASSERT_TRUE(whole.has_value()) << "one stream failed where parts did not";
            EXPECT_EQ(parted.parts, 1) << "read over as one stream";
            EXPECT_EQ(parted.formats, 2);
            EXPECT_EQ(parted.info.frameCount, whole->info.frameCount);
            EXPECT_TRUE(parted.joined == whole->channels);
        } catch (const HarluneError& error) {
            EXPECT_EQ(std::optional(error.kind()), wholeError) << error.what();
        }
    }
}

TEST(DecodeInParts, WhatTheFrameDecoderLeavesGivesTheOneStreamSamples) {
    TempDir dir;
    std::vector<std::string> arguments = noisyStereo();
    arguments.insert(arguments.end(), {"-c:a", "flac", "-sample_fmt", "s32", "-bits_per_raw_sample", "24"});
    arguments.push_back((dir / "whole.flac").string());
    testing::ffmpeg(arguments);
    const std::string bytes = testing::readFile(dir / "whole.flac");
    // A tag after the last frame, which is not audio: the last part ends at it.
    testing::writeFile(dir / "tagged.flac", bytes + "TAG" + std::string(125, 'x'));
    // A description whose least block size differs from its largest: fixed-block frames can't
    // be placed by their numbers, by the frame decoder or by libFLAC's seek.
    std::string uneven = bytes;
    ASSERT_EQ(uneven.substr(0, 4), "fLaC");
    uneven[8] = 0;
    uneven[9] = 16;
    testing::writeFile(dir / "uneven.flac", uneven);
    for (const std::string name : {"tagged.flac", "uneven.flac"}) {
        SCOPED_TRACE(name);
        const auto whole = AudioDecoder::decodeToArrays(dir / name);
        const PartsResult parted = decodeParts(dir / name, threeParts);
        if (name == "tagged.flac") {
            EXPECT_EQ(parted.parts, 3);
            EXPECT_EQ(parted.formats, 1) << "read over as one stream";
        }
        EXPECT_EQ(parted.info.frameCount, whole.info.frameCount);
        EXPECT_TRUE(parted.joined == whole.channels);
    }
}

TEST(DecodeInParts, CancellingAndCallbackErrorsEndEveryPart) {
    TempDir dir;
    std::vector<std::string> arguments = noisyStereo();
    arguments.push_back((dir / "a.flac").string());
    testing::ffmpeg(arguments);

    int calls = 0;
    const auto stopSoon = [&](double) {
        return ++calls < 3;
    };
    const HarluneError cancelled =
        testing::errorFrom([&] { decodeParts(dir / "a.flac", threeParts, stopSoon); });
    EXPECT_TRUE(cancelled.isCancelled());

    double last = 0;
    bool rising = true;
    const auto watch = [&](double fraction) {
        rising = rising && fraction >= last;
        last = fraction;
        return true;
    };
    decodeParts(dir / "a.flac", threeParts, watch);
    EXPECT_TRUE(rising);
    EXPECT_DOUBLE_EQ(last, 1.0);

    const auto onFormat = [](const AudioFileInfo&, int) {
    };
    const auto failing = [](int part, ChunkViews) {
        if (part == 1)
            throw std::runtime_error("disk full");
    };
    try {
        AudioDecoder::decodeInParts(dir / "a.flac", std::nullopt, onFormat, failing, threeParts);
        ADD_FAILURE() << "the callback's error was lost";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "disk full");
    }
}

} // namespace
} // namespace harlune
