// Records from a PipeWire source through the recorder (capture stream, ring, tap thread, safety
// file) and checks that a tone of a given frequency and amplitude arrived.
// Usage: harlune-e2e-record-check UID SECONDS FREQUENCY AMPLITUDE FOLDER
#include "engine/MainThreadQueue.h"
#include "engine/Recorder.h"
#include "engine/SafetyFile.h"
#include "engine/devices/PipeWireInputDevice.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>

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

} // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s UID SECONDS FREQUENCY AMPLITUDE FOLDER\n", argv[0]);
        return 2;
    }
    const std::string uid = argv[1];
    const double seconds = std::stod(argv[2]);
    const double frequency = std::stod(argv[3]);
    const double amplitude = std::stod(argv[4]);
    MainThreadQueue queue;
    auto device = std::make_shared<PipeWireInputDevice>(queue.poster());
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
    recorder.arm();
    if (!recorder.isArmed()) {
        std::fprintf(stderr, "%s\n", recorder.errorMessage().value_or("not armed").c_str());
        return 1;
    }
    recorder.start();
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        queue.runFor(std::chrono::milliseconds(33));
        recorder.poll();
    }
    recorder.stop();
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
    return ok ? 0 : 1;
}
