// Records from an input through the recorder (capture stream, ring, tap thread, safety file) and
// checks that a tone of a given frequency and amplitude arrived. Then it captures once more into a
// take buffer with the allocations of the back end's capture thread counted, which must be none.
// BACKEND is pipewire (the default), jack, portaudio or automatic; with jack it prints the recorder's port
// names once it records, for the script to wire a player to them.
// With until-lost the server is expected to go away mid-take: the recorder must then disarm with
// the reason and keep what it took. With monitor the recorder monitors during the take, and after
// it says "monitoring off" and waits two seconds for the script to look.
// Usage: harlune-e2e-record-check UID SECONDS FREQUENCY AMPLITUDE FOLDER [BACKEND [until-lost|monitor]]
#include "engine/MainThreadQueue.h"
#include "engine/Recorder.h"
#include "engine/SafetyFile.h"
#include "engine/devices/DefaultInputDevice.h"
#include "engine/devices/JackInputDevice.h"
#include "support/AllocationCounter.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <new>
#include <numbers>
#include <string>
#include <thread>

using namespace harlune;

namespace {

struct Keep final : RecorderClient {
    std::optional<AudioContent> take;
    void beginRecording(double, int) override {}
    void updateLiveTake(const AudioContent&) override {}
    void finishRecording(std::optional<AudioContent> content) override { take = std::move(content); }
};

/// The amplitude of the `hz` component of a plane (a single-bin DFT over whole frames).
double toneAmplitude(const std::vector<float>& plane, double hz, double rate) {
    double re = 0;
    double im = 0;
    for (size_t i = 0; i < plane.size(); ++i) {
        const double phase = 2 * std::numbers::pi * hz * static_cast<double>(i) / rate;
        re += plane[i] * std::cos(phase);
        im -= plane[i] * std::sin(phase);
    }
    return 2 * std::hypot(re, im) / static_cast<double>(plane.size());
}

/// Passes the audio on, counting the heap allocations of the capture thread from its first
/// callback on: the device's own callback code as well as the sink's.
struct CountingSink final : CaptureSink {
    CaptureSink& inner;
    std::atomic<int64_t> allocations{0};
    std::atomic<int64_t> callbacks{0};
    explicit CountingSink(CaptureSink& sink) : inner(sink) {}
    void capture(int frameCount, std::span<const float* const> channels) noexcept override {
        // Built in place and never destroyed: a thread_local with a destructor would register it
        // at the first call, which allocates (and RealtimeSanitizer rightly flags).
        using Counter = harlune::testing::AllocationCounter;
        alignas(Counter) thread_local unsigned char storage[sizeof(Counter)];
        thread_local Counter* counter = nullptr;
        if (counter == nullptr)
            counter = new (storage) Counter;
        inner.capture(frameCount, channels);
        allocations.store(counter->count() + counter->releases(), std::memory_order_relaxed);
        callbacks.fetch_add(1, std::memory_order_relaxed);
    }
};

InputBackend backendNamed(const std::string& name) {
    if (name == "jack")
        return InputBackend::jack;
    if (name == "portaudio")
        return InputBackend::portAudio;
    if (name == "automatic")
        return InputBackend::automatic;
    return InputBackend::pipeWire;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 6 || argc > 8) {
        std::fprintf(stderr,
                     "usage: %s UID SECONDS FREQUENCY AMPLITUDE FOLDER [BACKEND [until-lost|monitor]]\n",
                     argv[0]);
        return 2;
    }
    const std::string uid = argv[1];
    const double seconds = std::stod(argv[2]);
    const double frequency = std::stod(argv[3]);
    const double amplitude = std::stod(argv[4]);
    MainThreadQueue queue;
    std::shared_ptr<AudioInputDevice> device =
        makeDefaultInputDevice(queue.poster(), backendNamed(argc >= 7 ? argv[6] : "pipewire"));
    const bool untilLost = argc == 8 && std::string(argv[7]) == "until-lost";
    const bool monitor = argc == 8 && std::string(argv[7]) == "monitor";
    std::printf("input back end: %s\n", device->name().c_str());
    std::optional<uint32_t> id;
    for (const InputDevice& input : device->inputDevices()) {
        std::printf("input %u %s \"%s\" %d channels\n", input.id, input.uid.c_str(), input.name.c_str(),
                    input.channelCount);
        if (input.uid == uid)
            id = input.id;
    }
    if (!id) {
        std::fprintf(stderr, "no input %s\n", uid.c_str());
        return 1;
    }
    Keep keep;
    Recorder recorder(device,
                      Recorder::Options{Recorder::TapDriving::thread, std::filesystem::path(argv[5]), {}});
    recorder.setClient(&keep);
    recorder.setDeviceID(id);
    recorder.setMonitoring(monitor);
    recorder.arm();
    if (!recorder.isArmed()) {
        std::fprintf(stderr, "%s\n", recorder.errorMessage().value_or("not armed").c_str());
        return 1;
    }
    recorder.start();
    std::printf("recording\n");
    if (auto* jack = dynamic_cast<JackInputDevice*>(device.get()))
        for (const std::string& port : jack->portNames())
            std::printf("port %s\n", port.c_str());
    std::fflush(stdout);
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end && recorder.isArmed()) {
        queue.runFor(std::chrono::milliseconds(33));
        recorder.poll();
    }
    if (!recorder.isArmed() || untilLost) {
        const bool kept = keep.take && keep.take->frameCount() > 0;
        std::printf("lost: %s; %s\n", recorder.errorMessage().value_or("still armed").c_str(),
                    kept ? "the take was kept" : "no take");
        return untilLost && !recorder.isArmed() && kept ? 0 : 1;
    }
    recorder.stop();
    if (monitor) {
        recorder.setMonitoring(false);
        std::printf("monitoring off\n");
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::seconds(2));
    }
    const int64_t overruns = recorder.buffer() ? recorder.buffer()->ring().overruns() : -1;
    recorder.disarm();
    if (!keep.take || keep.take->frameCount() == 0) {
        std::fprintf(stderr, "no take\n");
        return 1;
    }
    if (recorder.safetyPath())
        removeSafetyFile(*recorder.safetyPath()); // the take is in memory now
    const auto planes = keep.take->readChannels(keep.take->fullRange());
    const double rate = keep.take->sampleRate();
    std::printf("take: %lld frames at %.0f Hz, %zu channels, overruns %lld\n",
                static_cast<long long>(keep.take->frameCount()), rate, planes.size(),
                static_cast<long long>(overruns));
    // The tone fills the middle of the take; measure it there.
    bool ok = overruns == 0;
    for (const auto& plane : planes) {
        const size_t n = plane.size();
        const std::vector<float> middle(plane.begin() + static_cast<long>(n / 3),
                                        plane.begin() + static_cast<long>(2 * n / 3));
        const double found = toneAmplitude(middle, frequency, rate);
        std::printf("tone amplitude %.4f (sent %.4f)\n", found, amplitude);
        ok = ok && std::fabs(20 * std::log10(found / amplitude)) < 0.5;
    }

    // The capture thread allocates nothing, in the device's callback or the take buffer's.
    try {
        const CaptureFormat format = device->open(id);
        TakeBuffer buffer(format.channelCount, {0}, format.sampleRate);
        CountingSink counting(buffer);
        device->start(counting);
        std::this_thread::sleep_for(std::chrono::seconds(1));
        device->close();
        std::printf("capture thread: %lld callbacks, %lld allocations\n",
                    static_cast<long long>(counting.callbacks.load()),
                    static_cast<long long>(counting.allocations.load()));
        ok = ok && counting.callbacks.load() > 0 && counting.allocations.load() == 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "reopening failed: %s\n", error.what());
        ok = false;
    }
    return ok ? 0 : 1;
}
