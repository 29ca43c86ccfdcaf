// Recording in the window: Record arms and shows the bar, the bar's choices reach the recorder,
// and a take fed through the test input lands in the document as one undo step.
#include "ui/RecordBar.h"

#include "document/AudioDocument.h"
#include "editor/EngineRecorderControl.h"
#include "engine/devices/TestInputDevice.h"
#include "support/TestAudio.h"
#include "ui/InputMeterView.h"
#include "ui/MainWindow.h"

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <gtest/gtest.h>

namespace harlune {
namespace {

struct RecordingWindow {
    std::shared_ptr<TestInputDevice> device = std::make_shared<TestInputDevice>();
    std::unique_ptr<AudioDocument> document;
    std::unique_ptr<MainWindow> window;
    EngineRecorderControl* control = nullptr;

    explicit RecordingWindow(std::vector<InputDevice> devices) {
        const std::optional<uint32_t> first =
            devices.empty() ? std::nullopt : std::optional<uint32_t>(devices.front().id);
        device->setDevices(std::move(devices), first);
        EditorCollaborators collaborators;
        auto recorder = std::make_unique<EngineRecorderControl>(
            device, Recorder::Options{Recorder::TapDriving::manual, std::nullopt, {}});
        control = recorder.get();
        collaborators.recorder = std::move(recorder);
        document = std::make_unique<AudioDocument>(std::move(collaborators));
        document->adopt(AudioContent(testing::noisePlanes(2, 4800, 1), 48000), QStringLiteral("Ramp"));
        window = std::make_unique<MainWindow>(*document);
    }

    void feed(const testing::Planes& planes) {
        device->deliver(planes, 480);
        control->recorder().pumpTap();
        for (int tick = 0; tick < 3; ++tick)
            control->recorder().poll();
    }
};

TEST(RecordBarTest, RecordArmsStartsAndStopsATakeThatLandsAsOneUndoStep) {
    RecordingWindow rig({{1, "in", "Desk Microphone", 2, 48000}, {2, "usb", "USB Interface", 4, 48000}});
    RecordBar* bar = rig.window->recordBar();
    ASSERT_NE(bar, nullptr);
    EXPECT_TRUE(bar->isHidden());

    QAction* record = rig.window->action("toggleRecording");
    ASSERT_TRUE(record->isEnabled());
    record->trigger(); // arms
    EXPECT_TRUE(rig.control->recorder().isArmed());
    EXPECT_FALSE(bar->isHidden());
    ASSERT_EQ(bar->deviceBox().count(), 2);
    EXPECT_EQ(bar->deviceBox().currentText(), "Desk Microphone");
    EXPECT_EQ(bar->inputBox().currentText(), "Inputs 1\u20132 (stereo)");

    // Choosing the four-input device offers its pairs, single inputs and all four.
    bar->deviceBox().setCurrentIndex(1);
    Q_EMIT bar->deviceBox().activated(1);
    EXPECT_EQ(rig.control->recorder().deviceID(), 2u);
    EXPECT_EQ(bar->inputBox().count(), 7);
    EXPECT_EQ(bar->inputBox().itemText(6), "All 4 inputs");
    bar->deviceBox().setCurrentIndex(0);
    Q_EMIT bar->deviceBox().activated(0);

    bar->modeBox().setCurrentIndex(2);
    Q_EMIT bar->modeBox().activated(2);
    EXPECT_EQ(rig.control->mode(), RecordMode::append);

    record->trigger(); // starts
    EXPECT_TRUE(rig.control->isRecording());
    EXPECT_EQ(bar->recordButton().text(), "Stop");
    EXPECT_FALSE(bar->deviceBox().isEnabled());
    const testing::Planes take = testing::noisePlanes(2, 9600, 3);
    rig.feed(take);
    EXPECT_EQ(bar->elapsedLabel().text(), "0:00.1"); // 8192 of 9600 frames are in whole blocks
    EXPECT_FALSE(bar->meter().levelsText().isEmpty());

    record->trigger(); // stops
    ASSERT_TRUE(QTest::qWaitFor([&] { return !rig.document->model().busy(); }, 20000));
    EXPECT_FALSE(rig.control->isRecording());
    EXPECT_TRUE(rig.control->recorder().isArmed()); // the next take starts at once
    EXPECT_EQ(rig.document->model().content().frameCount(), 4800 + 9600);
    EXPECT_EQ(rig.document->undoStack().count(), 1);
    EXPECT_EQ(rig.document->undoStack().undoText(), "Record");

    // Close disarms and hides the bar.
    QTest::mouseClick(bar->findChildren<QPushButton*>().last(), Qt::LeftButton);
    EXPECT_FALSE(rig.control->recorder().isArmed());
    EXPECT_TRUE(bar->isHidden());
}

TEST(RecordBarTest, ClosingDuringATakeKeepsItAndAsksToSaveIt) {
    RecordingWindow rig({{1, "in", "In", 2, 48000}});
    rig.window->show();
    QAction* record = rig.window->action("toggleRecording");
    record->trigger(); // arms
    record->trigger(); // starts
    ASSERT_TRUE(rig.control->isRecording());
    rig.feed(testing::noisePlanes(2, 9600, 3));

    EXPECT_FALSE(rig.window->close());
    auto* prompt = static_cast<QMessageBox*>(nullptr);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            prompt = rig.window->findChild<QMessageBox*>(QStringLiteral("closePrompt"));
            return prompt && prompt->isVisible();
        },
        20000));
    EXPECT_FALSE(rig.control->isRecording());
    EXPECT_EQ(rig.document->model().content().frameCount(), 4800 + 9600);
    EXPECT_EQ(rig.document->undoStack().undoText(), "Record");
    prompt->button(QMessageBox::Cancel)->click();
    QTest::qWait(50);
    EXPECT_TRUE(rig.window->isVisible());
}

TEST(RecordBarTest, NoInputShowsWhyAndClipLightsClearOnAClick) {
    RecordingWindow empty({});
    empty.window->action("toggleRecording")->trigger();
    EXPECT_FALSE(empty.control->recorder().isArmed());
    EXPECT_FALSE(empty.window->recordBar()->isHidden());
    EXPECT_EQ(empty.window->recordBar()->errorLabel().text(), "No audio input devices found.");

    RecordingWindow rig({{1, "in", "In", 1, 48000}});
    rig.window->action("toggleRecording")->trigger();
    EXPECT_EQ(rig.window->recordBar()->inputBox().count(), 1);
    EXPECT_EQ(rig.window->recordBar()->inputBox().currentText(), "Input 1 (mono)");
    rig.feed({std::vector<float>(4096, 0.9995f)});
    InputMeterView& meter = rig.window->recordBar()->meter();
    EXPECT_TRUE(meter.levelsText().endsWith("(clipped)")) << meter.levelsText().toStdString();
    EXPECT_TRUE(meter.accessibleDescription().endsWith("(clipped)"));
    meter.resize(200, 20);
    QTest::mouseClick(&meter, Qt::LeftButton);
    EXPECT_FALSE(meter.levelsText().contains("clipped"));
}

} // namespace
} // namespace harlune
