// The recorder on the test input device: the tap is pumped by hand, so every frame is accounted
// for and nothing sleeps.
#include "engine/Recorder.h"

#include "engine/SafetyFile.h"
#include "engine/devices/TestInputDevice.h"
#include "support/AllocationCounter.h"
#include "support/TestAudio.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

namespace harlune {
namespace {

using testing::noisePlanes;
using testing::Planes;
using testing::planesOf;

struct RecordingLog final : RecorderClient {
    int begun = 0;
    double rate = 0;
    int channels = 0;
    std::vector<int64_t> liveFrames;
    std::optional<std::optional<AudioContent>> finished;

    void beginRecording(double sampleRate, int channelCount) override {
        ++begun;
        rate = sampleRate;
        channels = channelCount;
    }
    void updateLiveTake(const AudioContent& take) override { liveFrames.push_back(take.frameCount()); }
    void finishRecording(std::optional<AudioContent> take) override { finished = std::move(take); }
};

std::filesystem::path scratchFolder(const std::string& name) {
    auto folder = std::filesystem::temp_directory_path() /
                  ("harlune-recorder-" + name + "-" + std::to_string(::getpid()));
    std::filesystem::remove_all(folder);
    return folder;
}

struct Rig {
    std::shared_ptr<TestInputDevice> device = std::make_shared<TestInputDevice>();
    RecordingLog log;
    std::unique_ptr<Recorder> recorder;

    explicit Rig(std::optional<std::filesystem::path> folder = std::nullopt) {
        recorder = std::make_unique<Recorder>(
            device, Recorder::Options{Recorder::TapDriving::manual, std::move(folder), [] {
                                          return std::time_t(0);
                                      }});
        recorder->setClient(&log);
    }
};

Planes slice(const Planes& planes, int64_t from, int64_t to) {
    Planes out;
    for (const auto& plane : planes)
        out.emplace_back(plane.begin() + from, plane.begin() + to);
    return out;
}

TEST(InputChoice, TitlesAndTheChoicesOfADevice) {
    EXPECT_TRUE(InputChoice::choices(0).empty());
    ASSERT_EQ(InputChoice::choices(1).size(), 1u);
    EXPECT_EQ(InputChoice::choices(1)[0].title(), "Input 1 (mono)");
    std::vector<std::string> titles;
    for (const auto& choice : InputChoice::choices(4))
        titles.push_back(choice.title());
    EXPECT_EQ(titles, (std::vector<std::string>{"Inputs 1\u20132 (stereo)", "Inputs 3\u20134 (stereo)",
                                                "Input 1 (mono)", "Input 2 (mono)", "Input 3 (mono)",
                                                "Input 4 (mono)", "All 4 inputs"}));
    EXPECT_EQ(InputChoice::choices(2).size(), 3u); // no "all" for a pair
}

TEST(Recorder, TheTakeIsExactlyWhatWasFedInTheChosenChannels) {
    Rig rig;
    rig.device->setDevices({{7, "four", "Four", 4, 44100}}, 7);
    rig.recorder->arm();
    ASSERT_TRUE(rig.recorder->isArmed());
    EXPECT_EQ(rig.recorder->inputChoice()->channels, (std::vector<int>{0, 1}));
    rig.recorder->setInputChoice(InputChoice{{3, 1}}); // not offered: the first pair stays
    EXPECT_EQ(rig.recorder->inputChoice()->channels, (std::vector<int>{0, 1}));
    rig.recorder->setInputChoice(InputChoice{{2, 3}});
    const Planes before = noisePlanes(4, 5000, 3);
    rig.device->deliver(before, 512); // armed only: meters, no take
    rig.recorder->start();
    EXPECT_EQ(rig.log.begun, 1);
    EXPECT_EQ(rig.log.rate, 44100);
    EXPECT_EQ(rig.log.channels, 2);

    const Planes input = noisePlanes(4, 3 * 4096 + 1234, 4);
    // Ragged callbacks, pumped between them as a tap would be.
    int64_t at = 0;
    for (int size : {1, 480, 4095, 4097, 64, 10000}) {
        const int64_t end = std::min<int64_t>(at + size, static_cast<int64_t>(input[0].size()));
        rig.device->deliver(slice(input, at, end), 256);
        rig.recorder->pumpTap();
        at = end;
    }
    rig.device->deliver(slice(input, at, static_cast<int64_t>(input[0].size())), 333);
    rig.recorder->pumpTap();
    EXPECT_EQ(rig.recorder->buffer()->captured() % 4096, 0); // the tap moves whole blocks only
    rig.recorder->stop();

    ASSERT_TRUE(rig.log.finished && *rig.log.finished);
    const Planes take = planesOf(**rig.log.finished);
    ASSERT_EQ(take.size(), 2u);
    EXPECT_EQ(take[0], input[2]);
    EXPECT_EQ(take[1], input[3]);
    EXPECT_EQ(rig.recorder->buffer()->ring().overruns(), 0);
    EXPECT_TRUE(rig.recorder->isArmed()); // ready for the next take
    EXPECT_FALSE(rig.recorder->isRecording());
}

TEST(Recorder, WithItsOwnTapThreadTheTakeIsStillWhole) {
    auto device = std::make_shared<TestInputDevice>();
    RecordingLog log;
    Recorder recorder(device, Recorder::Options{});
    recorder.setClient(&log);
    recorder.arm();
    recorder.start();
    const Planes input = noisePlanes(2, 10 * 4096 + 5, 21);
    device->deliver(input, 441); // the tap drains meanwhile, or not: stop takes the rest
    recorder.stop();
    EXPECT_EQ(planesOf(**log.finished), input);
    recorder.disarm();
}

TEST(Recorder, ARingOverflowDropsBlocksAndCountsThem) {
    Rig rig;
    rig.recorder->arm();
    rig.recorder->start();
    const int64_t capacity = rig.recorder->buffer()->ring().capacity();
    EXPECT_GE(capacity, 4 * 48000);
    const Planes input = noisePlanes(2, capacity + 4096, 5);
    rig.device->deliver(input, 4096); // no tap ran meanwhile
    EXPECT_EQ(rig.recorder->buffer()->ring().overruns(), 1);
    EXPECT_EQ(rig.recorder->buffer()->ring().droppedFrames(), 4096);
    rig.recorder->stop();
    const Planes take = planesOf(**rig.log.finished);
    EXPECT_EQ(take, slice(input, 0, capacity));
}

TEST(Recorder, TheCaptureCallbackAllocatesNothing) {
    Rig rig;
    rig.recorder->arm();
    rig.recorder->start();
    const Planes input = noisePlanes(2, 48000, 6);
    const float* planes[] = {input[0].data(), input[1].data()};
    rig.device->deliver(planes, 512, 512); // warm up
    {
        testing::AllocationCounter counter;
        rig.device->deliver(planes, 48000, 480);
        EXPECT_EQ(counter.count(), 0);
        EXPECT_EQ(counter.releases(), 0);
    }
    rig.recorder->stop();
    EXPECT_EQ((*rig.log.finished)->frameCount(), 48512);
}

TEST(Recorder, MetersFallByOnePointTwoDecibelsPerTickAndClipsLatch) {
    Rig rig;
    rig.device->setDevices({{1, "mono", "Mono", 1, 48000}}, 1);
    rig.recorder->arm();
    EXPECT_EQ(rig.recorder->inputChoice()->title(), "Input 1 (mono)");
    rig.recorder->poll();
    EXPECT_EQ(rig.recorder->peaksDB(), std::vector<double>{-121.2});

    std::vector<float> block(4096, 0.0f);
    block[100] = -0.5f;
    rig.device->deliver({block}, 4096);
    rig.recorder->pumpTap();
    rig.recorder->poll();
    double expected = 20 * std::log10(0.5);
    EXPECT_NEAR(rig.recorder->peaksDB()[0], expected, 1e-6);
    for (int tick = 0; tick < 5; ++tick) {
        rig.recorder->poll();
        expected -= 1.2;
        EXPECT_NEAR(rig.recorder->peaksDB()[0], expected, 1e-6);
    }
    EXPECT_FALSE(rig.recorder->clipped()[0]);

    block[100] = 0.999f;
    rig.device->deliver({block}, 4096);
    rig.recorder->pumpTap();
    rig.recorder->poll();
    EXPECT_TRUE(rig.recorder->clipped()[0]);
    rig.device->deliver({std::vector<float>(4096, 0.0f)}, 4096);
    rig.recorder->pumpTap();
    rig.recorder->poll();
    EXPECT_TRUE(rig.recorder->clipped()[0]); // latched
    rig.recorder->resetClipIndicators();
    rig.recorder->poll();
    EXPECT_FALSE(rig.recorder->clipped()[0]);

    // A device of another channel count resets the meters to -120 dB each.
    rig.device->setDevices({{1, "mono", "Mono", 1, 48000}, {2, "quad", "Quad", 4, 48000}}, 1);
    rig.recorder->arm();
    rig.recorder->setDeviceID(2);
    rig.recorder->poll();
    // Mono is offered there too: the meter goes on falling from the last clip, three ticks on.
    EXPECT_NEAR(rig.recorder->peaksDB()[0], 20 * std::log10(0.999f) - 3 * 1.2, 1e-6);
    rig.recorder->setInputChoice(InputChoice{{0, 1}});
    rig.recorder->poll();
    EXPECT_EQ(rig.recorder->peaksDB(), std::vector<double>(2, -121.2));
}

TEST(Recorder, TheLiveTakeGoesOutEveryThirdTick) {
    Rig rig;
    rig.recorder->arm();
    rig.recorder->start();
    for (int tick = 1; tick <= 7; ++tick) {
        rig.device->deliver(noisePlanes(2, 4096, tick), 4096);
        rig.recorder->pumpTap();
        rig.recorder->poll();
        EXPECT_EQ(rig.recorder->elapsedFrames(), 4096 * tick);
    }
    EXPECT_EQ(rig.log.liveFrames, (std::vector<int64_t>{3 * 4096, 6 * 4096}));
}

TEST(Recorder, ErrorsGoToTheMessageAndLeaveItDisarmed) {
    {
        Rig rig;
        rig.device->setDevices({}, std::nullopt);
        rig.recorder->arm();
        EXPECT_FALSE(rig.recorder->isArmed());
        EXPECT_EQ(rig.recorder->errorMessage(), "No audio input devices found.");
    }
    {
        Rig rig;
        rig.device->setFormatOverride(CaptureFormat{0, 2});
        rig.recorder->arm();
        EXPECT_FALSE(rig.recorder->isArmed());
        EXPECT_EQ(rig.recorder->errorMessage(),
                  "Couldn\u2019t open the input: the input device isn\u2019t delivering audio");
    }
    {
        Rig rig;
        rig.device->failNextOpen("busy");
        rig.recorder->arm();
        EXPECT_EQ(rig.recorder->errorMessage(), "Couldn\u2019t open the input: busy");
        rig.recorder->arm();
        EXPECT_TRUE(rig.recorder->isArmed());
        EXPECT_FALSE(rig.recorder->errorMessage());
    }
    {
        // A lost device ends the take as stop does, then disarms with the reason.
        Rig rig;
        rig.recorder->toggle(); // arms
        rig.recorder->toggle(); // starts
        ASSERT_TRUE(rig.recorder->isRecording());
        const Planes input = noisePlanes(2, 1000, 9);
        rig.device->deliver(input, 100);
        rig.device->simulateLoss("the device was unplugged");
        ASSERT_TRUE(rig.log.finished && *rig.log.finished);
        EXPECT_EQ(planesOf(**rig.log.finished), input);
        EXPECT_FALSE(rig.recorder->isArmed());
        EXPECT_EQ(rig.recorder->errorMessage(), "Couldn\u2019t open the input: the device was unplugged");
    }
    {
        // The default device is chosen, and a stop with nothing captured hands over an empty take.
        Rig rig;
        rig.device->setDevices({{3, "a", "A", 2, 48000}, {4, "b", "B", 2, 48000}}, 4);
        rig.recorder->arm();
        EXPECT_EQ(rig.recorder->deviceID(), 4u);
        rig.recorder->start();
        rig.recorder->stop();
        EXPECT_EQ((*rig.log.finished)->frameCount(), 0);
    }
}

Planes readBack(const std::filesystem::path& path, int& channels, int& rate) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file)
        return {};
    channels = info.channels;
    rate = info.samplerate;
    std::vector<float> interleaved(static_cast<size_t>(info.frames * info.channels));
    const sf_count_t frames = sf_readf_float(file, interleaved.data(), info.frames);
    sf_close(file);
    Planes planes(static_cast<size_t>(info.channels), std::vector<float>(static_cast<size_t>(frames)));
    for (sf_count_t i = 0; i < frames; ++i)
        for (int c = 0; c < info.channels; ++c)
            planes[static_cast<size_t>(c)][static_cast<size_t>(i)] =
                interleaved[static_cast<size_t>(i * info.channels + c)];
    return planes;
}

TEST(Recorder, TheSafetyFileHoldsTheTakeAndGoesWhenItIsSafe) {
    const auto folder = scratchFolder("safety");
    Rig rig(folder);
    rig.recorder->arm();
    rig.recorder->start();
    ASSERT_TRUE(rig.recorder->safetyPath());
    EXPECT_EQ(rig.recorder->safetyPath()->parent_path(), folder);
    EXPECT_EQ(rig.recorder->safetyPath()->filename().string().substr(0, 5), "Take ");
    EXPECT_EQ(rig.recorder->safetyPath()->extension(), ".caf");
    const Planes input = noisePlanes(2, 3 * 4096 + 17, 11);
    rig.device->deliver(input, 1024);
    rig.recorder->pumpTap();
    int channels = 0;
    int rate = 0;
    const Planes onDisk = readBack(*rig.recorder->safetyPath(), channels, rate); // while it runs
    EXPECT_EQ(channels, 2);
    EXPECT_EQ(rate, 48000);
    EXPECT_EQ(onDisk, slice(input, 0, 3 * 4096));
    rig.recorder->stop();
    EXPECT_EQ(planesOf(**rig.log.finished), input);
    // Stopping keeps the file: the client removes it once the take is kept elsewhere.
    EXPECT_EQ(readBack(*rig.recorder->safetyPath(), channels, rate), input);
    removeSafetyFile(*rig.recorder->safetyPath());
    EXPECT_FALSE(std::filesystem::exists(*rig.recorder->safetyPath()));
    std::filesystem::remove_all(folder);
}

// What ffmpeg decodes from a file, as planes of 32-bit float; empty when it is not installed.
Planes decodeWithFfmpeg(const std::filesystem::path& path, int channels) {
    const std::string command =
        "ffmpeg -v error -i '" + path.string() + "' -f f32le -acodec pcm_f32le - 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe)
        return {};
    std::vector<float> interleaved;
    float frame[16];
    while (std::fread(frame, sizeof(float) * static_cast<size_t>(channels), 1, pipe) == 1)
        interleaved.insert(interleaved.end(), frame, frame + channels);
    ::pclose(pipe);
    Planes planes(static_cast<size_t>(channels));
    for (size_t i = 0; i < interleaved.size(); ++i)
        planes[i % static_cast<size_t>(channels)].push_back(interleaved[i]);
    return planes;
}

TEST(Recorder, ASafetyFileKilledMidTakeReadsBackMissingAtMostTheLastSecond) {
    const auto folder = scratchFolder("killed");
    const int64_t fed = 48000 * 3 + 20000;
    const Planes input = noisePlanes(2, fed, 31);
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The recording process: take the audio in, say so, then wait to be killed.
        Rig rig(folder);
        rig.recorder->arm();
        rig.recorder->start();
        for (int64_t at = 0; at < fed; at += 4800) {
            rig.device->deliver(slice(input, at, std::min(fed, at + 4800)), 480);
            rig.recorder->pumpTap();
        }
        const char byte = 1;
        [[maybe_unused]] auto written = ::write(ready[1], &byte, 1);
        for (;;)
            ::pause();
    }
    ::close(ready[1]);
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));

    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        files.push_back(entry.path());
    ASSERT_EQ(files.size(), 1u);
    int channels = 0;
    int rate = 0;
    const Planes viaSndfile = readBack(files[0], channels, rate);
    ASSERT_EQ(channels, 2);
    EXPECT_EQ(rate, 48000);
    const auto frames = static_cast<int64_t>(viaSndfile[0].size());
    EXPECT_GE(frames, fed - 48000);
    EXPECT_EQ(viaSndfile, slice(input, 0, frames));

    const Planes viaFfmpeg = decodeWithFfmpeg(files[0], 2);
    if (viaFfmpeg.empty() || viaFfmpeg[0].empty()) {
        GTEST_SKIP() << "ffmpeg is not installed";
    } else {
        EXPECT_GE(static_cast<int64_t>(viaFfmpeg[0].size()), fed - 48000);
        EXPECT_EQ(viaFfmpeg, slice(input, 0, static_cast<int64_t>(viaFfmpeg[0].size())));
    }
    std::filesystem::remove_all(folder);
}

TEST(Recorder, AnUnwritableFolderCostsTheSafetyCopyNotTheTake) {
    const auto blocker = scratchFolder("blocked");
    { std::ofstream(blocker.string()) << "a file where the folder should be"; }
    Rig rig(blocker / "Recordings");
    rig.recorder->arm();
    rig.recorder->start();
    EXPECT_FALSE(rig.recorder->buffer()->hasSafetyFile());
    const Planes input = noisePlanes(2, 5000, 12);
    rig.device->deliver(input, 1000);
    rig.recorder->stop();
    EXPECT_EQ(planesOf(**rig.log.finished), input);
    std::filesystem::remove(blocker);
}

TEST(SafetyFile, TakeNamesAndTheFolder) {
    EXPECT_EQ(takeFileName(0).size(), std::string("Take 1970-01-01T00.00.00.caf").size());
    EXPECT_EQ(takeFileName(0).find(':'), std::string::npos);
    const char* old = std::getenv("XDG_DATA_HOME");
    const std::string saved = old ? old : "";
    ::setenv("XDG_DATA_HOME", "/data/home", 1);
    EXPECT_EQ(recordingsFolder(), std::filesystem::path("/data/home/Harlune/Recordings"));
    ::unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(recordingsFolder(),
              std::filesystem::path(std::getenv("HOME")) / ".local/share/Harlune/Recordings");
    if (old)
        ::setenv("XDG_DATA_HOME", saved.c_str(), 1);
}

} // namespace
} // namespace harlune
