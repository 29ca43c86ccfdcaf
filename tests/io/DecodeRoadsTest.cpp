// The decoding contract on both roads, and bad input of every kind: each gives a clear error in
// bounded time, never a crash or a hang.
#include "base/Uuid.h"
#include "io/AudioDecoder.h"
#include "io/FFmpegDecoder.h"
#include "io/IoTestSupport.h"
#include "io/QuietMpegDecoder.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace harlune {
namespace {

using namespace std::chrono_literals;
using testing::errorFrom;
using testing::TempDir;
using testing::ToolSearchGuard;

bool noChildrenLeft() {
    int status = 0;
    return ::waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

void makeExecutable(const std::filesystem::path& path, const std::string& script) {
    testing::writeFile(path, script);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

/// What a decode did, as its callbacks saw it.
struct Trace {
    int formats = 0;
    int chunksBeforeFormat = 0;
    int64_t frames = 0;
    size_t largestChunk = 0;
    std::vector<double> progress;
    AudioFileInfo announced;
    AudioFileInfo final;
};

Trace traceDecode(const std::filesystem::path& path) {
    Trace trace;
    trace.final = AudioDecoder::decode(
        path,
        [&](double fraction) {
            trace.progress.push_back(fraction);
            return true;
        },
        [&](const AudioFileInfo& info) {
            ++trace.formats;
            trace.announced = info;
        },
        [&](ChunkViews chunk) {
            if (trace.formats == 0)
                ++trace.chunksBeforeFormat;
            for (const auto& view : chunk)
                EXPECT_EQ(view.size(), chunk[0].size());
            trace.largestChunk = std::max(trace.largestChunk, chunk[0].size());
            trace.frames += static_cast<int64_t>(chunk[0].size());
        });
    return trace;
}

class DecodeRoads : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder = new TempDir;
        auto wav = testing::stereoSource(1.0);
        wav.insert(wav.end(), {"-c:a", "pcm_s16le", (*folder / "one.wav").string()});
        testing::ffmpeg(wav);
        auto m4a = testing::stereoSource(1.0);
        m4a.insert(m4a.end(), {"-c:a", "aac", (*folder / "one.m4a").string()});
        testing::ffmpeg(m4a);
        // Long enough that ffmpeg fills the pipe and blocks while a callback dawdles.
        testing::ffmpeg({"-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000:duration=20", "-c:a",
                         "aac", "-b:a", "32k", (*folder / "long.m4a").string()});
    }
    static void TearDownTestSuite() {
        delete folder;
        folder = nullptr;
    }
    static std::filesystem::path file(const std::string& name) { return *folder / name; }
    static inline TempDir* folder = nullptr;
};

TEST_F(DecodeRoads, bothRoadsKeepTheCallbackContract) {
    for (const char* name : {"one.wav", "one.m4a"}) {
        SCOPED_TRACE(name);
        const Trace trace = traceDecode(file(name));
        EXPECT_EQ(trace.formats, 1);
        EXPECT_EQ(trace.chunksBeforeFormat, 0);
        EXPECT_LE(trace.largestChunk, 32768u);
        EXPECT_EQ(trace.final.frameCount, trace.frames);
        EXPECT_GE(trace.announced.frameCount, 48000); // the header's estimate
        ASSERT_FALSE(trace.progress.empty());
        EXPECT_TRUE(std::is_sorted(trace.progress.begin(), trace.progress.end()));
        EXPECT_EQ(trace.progress.back(), 1.0);
    }
}

TEST_F(DecodeRoads, anEmptyWaveFileDecodesToNothingWithoutError) {
    TempDir scratch;
    const auto path = scratch / "empty.wav";
    testing::ffmpeg(
        {"-f", "lavfi", "-i", "anullsrc=r=48000:cl=stereo", "-t", "0", "-c:a", "pcm_s16le", path.string()});
    const Trace trace = traceDecode(path);
    EXPECT_EQ(trace.formats, 1);
    EXPECT_EQ(trace.frames, 0);
    EXPECT_EQ(trace.final.frameCount, 0);
    EXPECT_EQ(trace.final.decoderName, "libsndfile");
}

TEST_F(DecodeRoads, aTruncatedWaveOpensWithTheAudioItHas) {
    TempDir scratch;
    const auto full = file("one.wav");
    const auto size = std::filesystem::file_size(full);
    const auto dataStart = size - 48000 * 4; // 16-bit stereo: 4 bytes a frame
    const auto cut = scratch / "cut.wav";
    std::filesystem::copy_file(full, cut);
    std::filesystem::resize_file(cut, dataStart + 20000 * 4 + 3); // ends in the middle of a frame

    const auto decoded = AudioDecoder::decodeToArrays(cut);
    EXPECT_EQ(decoded.info.frameCount, 20000);
    const auto reference = testing::referenceDecode(full, 2);
    for (size_t c = 0; c < 2; ++c)
        EXPECT_TRUE(std::equal(decoded.channels[c].begin(), decoded.channels[c].end(), reference[c].begin()));
}

TEST_F(DecodeRoads, unreadablePathsFailBeforeAnyRoad) {
    TempDir scratch;
    const auto missing = HarluneError::decodeFailed("the file doesn\u2019t exist or can\u2019t be read");
    EXPECT_EQ(errorFrom([&] { AudioDecoder::probe(scratch / "missing.wav"); }), missing);
    EXPECT_EQ(errorFrom([&] { AudioDecoder::decodeToArrays(scratch / "missing.wav"); }), missing);
    EXPECT_EQ(errorFrom([&] { AudioDecoder::decodeToArrays(""); }), missing);
}

TEST_F(DecodeRoads, filesThatAreNoAudioGiveAClearError) {
    TempDir scratch;
    std::mt19937 random(7);
    std::string noise(20000, '\0');
    for (auto& byte : noise)
        byte = static_cast<char>(random());
    testing::writeFile(scratch / "zero.wav", "");
    testing::writeFile(scratch / "text.wav", "This is not a sound file.\n");
    testing::writeFile(scratch / "noise.mp3", noise);
    std::filesystem::create_directory(scratch / "folder.wav");
    // Nor does the MP3 decoder behind the native road print its notices to the terminal.
    EXPECT_TRUE(QuietMpegDecoder::isInstalled());

    for (const char* name : {"zero.wav", "text.wav", "noise.mp3", "folder.wav"}) {
        SCOPED_TRACE(name);
        const HarluneError decodeError = errorFrom([&] { AudioDecoder::decodeToArrays(scratch / name); });
        EXPECT_FALSE(decodeError.isCancelled());
        EXPECT_TRUE(decodeError.detail().starts_with("the built-in decoder can\u2019t open the file ("))
            << decodeError.detail();
        const HarluneError probeError = errorFrom([&] { AudioDecoder::probe(scratch / name); });
        EXPECT_FALSE(probeError.detail().empty());
    }
    EXPECT_EQ(errorFrom([&] { AudioDecoder::decodeToArrays(scratch / "folder.wav"); }).detail(),
              "the built-in decoder can\u2019t open the file (it is a folder); is a directory");
}

TEST_F(DecodeRoads, aFileWithoutAudioSaysSo) {
    TempDir scratch;
    const auto path = scratch / "picture.mp4";
    testing::ffmpeg(
        {"-f", "lavfi", "-i", "testsrc=duration=0.5:size=64x48:rate=10", "-c:v", "mpeg4", path.string()});
    const auto noStream = HarluneError::unsupportedFormat("no audio stream found");
    EXPECT_EQ(errorFrom([&] { AudioDecoder::decodeToArrays(path); }), noStream);
    EXPECT_EQ(errorFrom([&] { AudioDecoder::probe(path); }), noStream);
}

TEST_F(DecodeRoads, awkwardFileNamesReachBothRoadsIntact) {
    TempDir scratch;
    const auto reference = AudioDecoder::decodeToArrays(file("one.m4a")).channels;
    const auto wavReference = AudioDecoder::decodeToArrays(file("one.wav")).channels;
    for (const std::string stem :
         {"with space", "quote'\"s", "-dash", "new\nline", "\u00FCn\u00EFc\u00F8d\u00E9 \u6587"}) {
        SCOPED_TRACE(stem);
        std::filesystem::copy_file(file("one.m4a"), scratch / (stem + ".m4a"));
        std::filesystem::copy_file(file("one.wav"), scratch / (stem + ".wav"));
        EXPECT_EQ(AudioDecoder::decodeToArrays(scratch / (stem + ".m4a")).channels, reference);
        EXPECT_EQ(AudioDecoder::decodeToArrays(scratch / (stem + ".wav")).channels, wavReference);
    }
    // A relative name with a leading dash must not pass for an option.
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(scratch.path());
    const auto relative = AudioDecoder::decodeToArrays("-dash.m4a").channels;
    std::filesystem::current_path(previous);
    EXPECT_EQ(relative, reference);
}

TEST_F(DecodeRoads, withoutFFmpegOnlyTheNativeRoadReads) {
    TempDir empty;
    const auto withTool = AudioDecoder::readableFileExtensions();
    ToolSearchGuard guard({empty.path()});
    EXPECT_FALSE(FFmpegDecoder::isAvailable());

    const HarluneError error = errorFrom([&] { AudioDecoder::decodeToArrays(file("one.m4a")); });
    EXPECT_EQ(error.kind(), HarluneError::Kind::unsupportedFormat);
    EXPECT_TRUE(error.detail().starts_with("the built-in decoder can\u2019t open the file ("))
        << error.detail();
    EXPECT_TRUE(error.detail().ends_with("; install ffmpeg to open more formats")) << error.detail();
    EXPECT_EQ(errorFrom([&] { AudioDecoder::probe(file("one.m4a")); }),
              HarluneError::unsupportedFormat("m4a"));
    std::filesystem::copy_file(file("one.m4a"), empty / "noextension");
    EXPECT_EQ(errorFrom([&] { AudioDecoder::probe(empty / "noextension"); }),
              HarluneError::unsupportedFormat("unknown file type"));

    EXPECT_EQ(AudioDecoder::decodeToArrays(file("one.wav")).info.frameCount, 48000);

    const auto nativeOnly = AudioDecoder::readableFileExtensions();
    EXPECT_TRUE(std::is_sorted(nativeOnly.begin(), nativeOnly.end()));
    for (const char* extension : {"wav", "aif", "aifc", "mp3", "m4a", "flac", "caf", "ogg", "rf64", "w64"})
        EXPECT_TRUE(std::binary_search(nativeOnly.begin(), nativeOnly.end(), std::string(extension)))
            << extension;
    EXPECT_FALSE(std::binary_search(nativeOnly.begin(), nativeOnly.end(), std::string("wma")));
    EXPECT_TRUE(std::binary_search(withTool.begin(), withTool.end(), std::string("wma")));
    EXPECT_TRUE(std::adjacent_find(withTool.begin(), withTool.end()) == withTool.end());
}

TEST_F(DecodeRoads, withoutFFprobeTheToolConvertsThroughATemporaryFile) {
    TempDir tools;
    TempDir temporary;
    std::filesystem::create_symlink(testing::systemFFmpeg, tools / "ffmpeg");
    ToolSearchGuard guard({tools.path()});
    const char* previousTemp = std::getenv("TMPDIR");
    const std::string savedTemp = previousTemp ? previousTemp : "";
    ::setenv("TMPDIR", temporary.path().c_str(), 1);

    const Trace trace = traceDecode(file("one.m4a"));
    const auto decoded = AudioDecoder::decodeToArrays(file("one.m4a"));
    std::vector<std::string> whileReading;
    AudioDecoder::decode(
        file("one.m4a"), std::nullopt,
        [&](const AudioFileInfo&) {
            for (const auto& entry : std::filesystem::directory_iterator(temporary.path()))
                whileReading.push_back(entry.path().filename().string());
        },
        [](ChunkViews) {});
    if (previousTemp)
        ::setenv("TMPDIR", savedTemp.c_str(), 1);
    else
        ::unsetenv("TMPDIR");

    EXPECT_EQ(trace.announced.containerName, "M4A");
    EXPECT_EQ(trace.announced.codecName, "Unknown");
    EXPECT_TRUE(trace.announced.isLossy);
    EXPECT_EQ(trace.announced.bitDepth, std::nullopt);
    EXPECT_EQ(trace.announced.decoderName, "ffmpeg");
    EXPECT_EQ(trace.final.url, file("one.m4a"));
    EXPECT_EQ(trace.final.fileSize, static_cast<int64_t>(std::filesystem::file_size(file("one.m4a"))));
    EXPECT_EQ(trace.progress.back(), 1.0);
    EXPECT_EQ(decoded.channels, testing::referenceDecode(file("one.m4a"), 2));
    ASSERT_EQ(whileReading.size(), 1u);
    EXPECT_TRUE(whileReading[0].starts_with("Harlune-ffmpeg-") && whileReading[0].ends_with(".caf") &&
                Uuid::fromString(whileReading[0].substr(15, 36)))
        << whileReading[0];
    EXPECT_TRUE(std::filesystem::is_empty(temporary.path())); // the temporary file is gone
}

TEST_F(DecodeRoads, aToolStreamEndingInsideAFrameGivesTheWholeFramesOnly) {
    TempDir tools;
    std::filesystem::create_symlink(testing::systemFFprobe, tools / "ffprobe");
    // One stereo frame of (1.0, -0.5), then two stray bytes.
    makeExecutable(tools / "ffmpeg",
                   "#!/bin/sh\nprintf '\\000\\000\\200\\077\\000\\000\\000\\277\\001\\002'\n");
    ToolSearchGuard guard({tools.path()});
    const Trace trace = traceDecode(file("one.m4a"));
    EXPECT_EQ(trace.frames, 1);
    EXPECT_EQ(trace.final.frameCount, 1);
    EXPECT_EQ(trace.progress.back(), 1.0);
    const auto decoded = AudioDecoder::decodeToArrays(file("one.m4a"));
    EXPECT_EQ(decoded.channels, (std::vector<std::vector<float>>{{1.0f}, {-0.5f}}));
}

TEST_F(DecodeRoads, anEmptyToolStreamGivesNoFramesAndAFailingToolItsMessage) {
    TempDir tools;
    std::filesystem::create_symlink(testing::systemFFprobe, tools / "ffprobe");
    makeExecutable(tools / "ffmpeg", "#!/bin/sh\nexit 0\n");
    {
        ToolSearchGuard guard({tools.path()});
        const Trace trace = traceDecode(file("one.m4a"));
        EXPECT_EQ(trace.formats, 1);
        EXPECT_EQ(trace.frames, 0);
        EXPECT_EQ(trace.final.frameCount, 0);
    }
    makeExecutable(tools / "ffmpeg", "#!/bin/sh\necho '  no luck ' >&2\nexit 1\n");
    ToolSearchGuard guard({tools.path()});
    const HarluneError error = errorFrom([&] { AudioDecoder::decodeToArrays(file("one.m4a")); });
    EXPECT_EQ(error.kind(), HarluneError::Kind::decodeFailed);
    EXPECT_TRUE(error.detail().starts_with("the built-in decoder can\u2019t open the file ("))
        << error.detail();
    EXPECT_TRUE(error.detail().ends_with("); ffmpeg: no luck")) << error.detail();
}

TEST_F(DecodeRoads, ffmpegKilledInTheMiddleOfADecodeGivesAnError) {
    TempDir tools;
    std::filesystem::create_symlink(testing::systemFFprobe, tools / "ffprobe");
    // Reads at the speed of playback, so the kill lands in the middle.
    makeExecutable(tools / "ffmpeg", "#!/bin/sh\necho $$ > '" + (tools / "pid").string() +
                                         "'\nexec /usr/bin/ffmpeg -re \"$@\"\n");
    ToolSearchGuard guard({tools.path()});
    int chunks = 0;
    const HarluneError error = errorFrom([&] {
        AudioDecoder::decode(
            file("long.m4a"), std::nullopt, [](const AudioFileInfo&) {},
            [&](ChunkViews) {
                if (chunks++ == 0) {
                    std::ifstream pidFile(tools / "pid");
                    pid_t pid = 0;
                    pidFile >> pid;
                    ASSERT_GT(pid, 0);
                    ::kill(pid, SIGKILL);
                }
            });
    });
    EXPECT_EQ(error.kind(), HarluneError::Kind::decodeFailed);
    EXPECT_TRUE(error.detail().ends_with("; ffmpeg: exit status 9")) << error.detail();
    EXPECT_LT(chunks, 20);
    EXPECT_TRUE(noChildrenLeft());
}

TEST_F(DecodeRoads, cancellingEndsEitherRoadAsCancelled) {
    for (const char* name : {"one.wav", "long.m4a"}) {
        SCOPED_TRACE(name);
        int chunks = 0;
        const HarluneError error = errorFrom([&] {
            AudioDecoder::decode(
                file(name), [](double) { return false; }, [](const AudioFileInfo&) {},
                [&](ChunkViews) { ++chunks; });
        });
        EXPECT_TRUE(error.isCancelled());
        EXPECT_EQ(chunks, 1);
    }
    EXPECT_TRUE(noChildrenLeft());
}

TEST_F(DecodeRoads, aCallbackErrorEndsABlockedFFmpegQuicklyAndPassesUnchanged) {
    struct Stop : std::exception {};
    for (const bool inFormat : {false, true}) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_THROW(AudioDecoder::decode(
                         file("long.m4a"), std::nullopt,
                         [&](const AudioFileInfo&) {
                             if (inFormat) {
                                 std::this_thread::sleep_for(300ms);
                                 throw Stop();
                             }
                         },
                         [](ChunkViews) {
                             std::this_thread::sleep_for(300ms); // ffmpeg fills the pipe and blocks
                             throw Stop();
                         }),
                     Stop);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
        EXPECT_TRUE(noChildrenLeft());
    }
}

} // namespace
} // namespace harlune
