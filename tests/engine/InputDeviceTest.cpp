// The input-device interface as the recorder uses it: device lists that change under an armed
// recorder, and the monitor path following the recorder's switch.
#include "engine/MainThreadQueue.h"
#include "engine/Recorder.h"
#include "engine/devices/TestInputDevice.h"
#include "support/TestAudio.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::noisePlanes;
using testing::planesOf;

struct Keep final : RecorderClient {
    std::optional<std::optional<AudioContent>> finished;
    void beginRecording(double, int) override {}
    void updateLiveTake(const AudioContent&) override {}
    void finishRecording(std::optional<AudioContent> take) override { finished = std::move(take); }
};

struct QueuedRig {
    MainThreadQueue queue;
    std::shared_ptr<TestInputDevice> device = std::make_shared<TestInputDevice>(queue.poster());
    Keep keep;
    Recorder recorder{device, Recorder::Options{Recorder::TapDriving::manual, std::nullopt, {}}};
    QueuedRig() { recorder.setClient(&keep); }
};

TEST(InputDevices, ABurstOfChangesReachesTheMainThreadOnceAndAClearedHandlerNever) {
    MainThreadQueue queue;
    TestInputDevice device(queue.poster());
    int told = 0;
    device.setDevicesChangedHandler([&] { ++told; });
    for (uint32_t id = 1; id <= 3; ++id)
        device.simulateDevicesChanged({{id, "x", "X", 2, 48000}}, id);
    EXPECT_EQ(told, 0); // nothing runs off the main thread
    EXPECT_EQ(queue.runPending(), 1);
    EXPECT_EQ(told, 1);
    device.simulateDevicesChanged({}, std::nullopt);
    EXPECT_EQ(queue.runPending(), 1);
    EXPECT_EQ(told, 2);
    device.simulateDevicesChanged({}, std::nullopt);
    device.setDevicesChangedHandler({});
    queue.runPending();
    EXPECT_EQ(told, 2);
}

TEST(InputDevices, TheRecorderFollowsTheListAndAnArmedDeviceThatLeftEndsTheTake) {
    QueuedRig rig;
    rig.device->setDevices({{3, "a", "A", 2, 48000}}, 3);
    rig.recorder.arm();
    ASSERT_TRUE(rig.recorder.isArmed());

    // Another device arrives: listed, and the armed one stays open.
    const int opens = rig.device->openCount();
    rig.device->simulateDevicesChanged({{3, "a", "A", 2, 48000}, {5, "b", "B", 1, 44100}}, 3);
    rig.queue.runPending();
    ASSERT_EQ(rig.recorder.devices().size(), 2u);
    EXPECT_EQ(rig.recorder.devices()[1].name, "B");
    EXPECT_TRUE(rig.recorder.isArmed());
    EXPECT_EQ(rig.device->openCount(), opens);

    // The armed device leaves in the middle of a take: the take is kept, the recorder disarms.
    rig.recorder.start();
    const auto input = noisePlanes(2, 3000, 4);
    rig.device->deliver(input, 256);
    rig.device->simulateDevicesChanged({{5, "b", "B", 1, 44100}}, 5);
    EXPECT_TRUE(rig.recorder.isRecording()); // until the main thread hears of it
    rig.queue.runPending();
    EXPECT_FALSE(rig.recorder.isRecording());
    EXPECT_FALSE(rig.recorder.isArmed());
    ASSERT_TRUE(rig.keep.finished && *rig.keep.finished);
    EXPECT_EQ(planesOf(**rig.keep.finished), input);
    EXPECT_EQ(rig.recorder.errorMessage(), "Couldn\u2019t open the input: the input device is gone");
    EXPECT_EQ(rig.recorder.devices().size(), 1u);

    // Arming again takes the device that is left.
    rig.recorder.arm();
    EXPECT_TRUE(rig.recorder.isArmed());
    EXPECT_EQ(rig.recorder.deviceID(), 5u);
}

TEST(InputDevices, MonitoringFollowsTheSwitchAcrossRearmsTakesAndDisarm) {
    QueuedRig rig;
    rig.recorder.setMonitoring(true); // not armed: remembered only
    EXPECT_FALSE(rig.device->monitoring());
    rig.recorder.arm();
    EXPECT_TRUE(rig.device->monitoring());
    rig.recorder.setMonitoring(false);
    EXPECT_FALSE(rig.device->monitoring());
    rig.recorder.setMonitoring(true);
    EXPECT_TRUE(rig.device->monitoring());

    // During a take the switch changes the monitor alone: the device stays open, the take whole.
    rig.recorder.start();
    const int opens = rig.device->openCount();
    const auto first = noisePlanes(2, 2000, 7);
    rig.device->deliver(first, 500);
    rig.recorder.setMonitoring(false);
    EXPECT_FALSE(rig.device->monitoring());
    const auto second = noisePlanes(2, 2000, 8);
    rig.device->deliver(second, 500);
    rig.recorder.setMonitoring(true);
    EXPECT_TRUE(rig.device->monitoring());
    EXPECT_EQ(rig.device->openCount(), opens);
    rig.recorder.stop();
    const auto take = planesOf(**rig.keep.finished);
    ASSERT_EQ(take[0].size(), 4000u);
    EXPECT_TRUE(std::equal(first[0].begin(), first[0].end(), take[0].begin()));
    EXPECT_TRUE(std::equal(second[1].begin(), second[1].end(), take[1].begin() + 2000));

    rig.recorder.disarm();
    EXPECT_FALSE(rig.device->monitoring());
}

TEST(InputDevices, AMonitorTheBackEndRefusesTurnsTheSwitchOffAndSaysWhy) {
    QueuedRig rig;
    rig.device->setCanMonitor(false);
    rig.recorder.setMonitoring(true);
    rig.recorder.arm();
    EXPECT_TRUE(rig.recorder.isArmed()); // still records: only the monitor is missing
    EXPECT_FALSE(rig.recorder.monitoring());
    EXPECT_EQ(rig.recorder.errorMessage(), std::string(Recorder::cannotMonitor));

    // Mid-take the same, and the take runs on.
    rig.recorder.start();
    rig.recorder.setMonitoring(true);
    EXPECT_TRUE(rig.recorder.isRecording());
    EXPECT_FALSE(rig.recorder.monitoring());
    rig.recorder.stop();

    // A back end that can (another device, another server) clears the message.
    rig.device->setCanMonitor(true);
    rig.recorder.setMonitoring(true);
    EXPECT_TRUE(rig.recorder.monitoring());
    EXPECT_TRUE(rig.device->monitoring());
    EXPECT_FALSE(rig.recorder.errorMessage().has_value());
}

} // namespace
} // namespace harlune
