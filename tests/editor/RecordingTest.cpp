// Recording into the model through the real recorder on the test input device: the tap is
// pumped and the meter timer fired by hand, so each live update sees exactly what was fed.
#include "dsp/Resampler.h"
#include "editor/EditorTestSupport.h"
#include "editor/EngineRecorderControl.h"
#include "engine/devices/TestInputDevice.h"
#include "support/TestAudio.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

namespace harlune {
namespace {

using testing::noisePlanes;
using testing::Planes;
using testing::planesOf;

Planes concatenated(std::initializer_list<Planes> parts) {
    Planes out(parts.begin()->size());
    for (const Planes& part : parts)
        for (size_t c = 0; c < out.size(); ++c)
            out[c].insert(out[c].end(), part[c].begin(), part[c].end());
    return out;
}

Planes slice(const Planes& planes, int64_t from, int64_t to) {
    Planes out;
    for (const auto& plane : planes)
        out.emplace_back(plane.begin() + from, plane.begin() + to);
    return out;
}

class RecordingTest : public ::testing::Test {
protected:
    void SetUp() override { testing::clearPreferences(); }
    void TearDown() override { testing::drainJobs(); }

    void use(AudioContent content, std::vector<InputDevice> devices = {{1, "in", "In", 2, 48000}},
             std::optional<std::filesystem::path> safetyFolder = std::nullopt) {
        device = std::make_shared<TestInputDevice>();
        device->setDevices(std::move(devices), 1);
        EditorCollaborators collaborators = testing::probeCollaborators(probe);
        auto control = std::make_unique<EngineRecorderControl>(
            device, Recorder::Options{Recorder::TapDriving::manual, std::move(safetyFolder), {}});
        recorder = control.get();
        collaborators.recorder = std::move(control);
        model = std::make_unique<EditorModel>(std::move(content), std::nullopt, std::move(collaborators));
        model->setUndoManager(&stack);
        base = planesOf(model->content());
    }

    /// Arms, starts a take in `mode`, feeds `take` and shows it live; the take is still running.
    void record(RecordMode mode, const Planes& take) {
        recorder->setMode(mode);
        recorder->recorder().arm();
        ASSERT_TRUE(recorder->recorder().isArmed());
        recorder->recorder().start();
        ASSERT_TRUE(model->recordHead());
        device->deliver(take, 480);
        recorder->recorder().pumpTap();
        for (int tick = 0; tick < 3; ++tick)
            recorder->recorder().poll();
    }

    void finish() {
        recorder->recorder().stop();
        ASSERT_TRUE(QTest::qWaitFor([this] { return !model->busy(); }, 20000));
        EXPECT_FALSE(model->recordHead());
        EXPECT_FALSE(model->analysisSuspended());
    }

    std::shared_ptr<testing::Probe> probe = std::make_shared<testing::Probe>();
    std::shared_ptr<TestInputDevice> device;
    EngineRecorderControl* recorder = nullptr;
    QUndoStack stack;
    std::unique_ptr<EditorModel> model;
    Planes base;
};

constexpr int64_t takeFrames = 2 * 4096;

TEST_F(RecordingTest, InsertAtTheCursorShowsTheTakeLiveAndIsOneUndoStep) {
    use(testing::rampContent(1000));
    model->setCursor(300);
    const Planes take = noisePlanes(2, takeFrames + 100, 1);
    record(RecordMode::insert, take);
    EXPECT_TRUE(model->analysisSuspended());
    EXPECT_EQ(model->recordHead(), 300 + takeFrames); // the tap moved whole blocks so far
    EXPECT_EQ(planesOf(model->content()),
              concatenated({slice(base, 0, 300), slice(take, 0, takeFrames), slice(base, 300, 1000)}));
    finish();
    EXPECT_EQ(planesOf(model->content()), concatenated({slice(base, 0, 300), take, slice(base, 300, 1000)}));
    ASSERT_EQ(stack.count(), 1);
    EXPECT_EQ(stack.undoText(), "Record");
    stack.undo();
    EXPECT_EQ(planesOf(model->content()), base);
}

TEST_F(RecordingTest, ReplaceGrowsPastTheSelectionAndTheEnd) {
    use(testing::rampContent(1000));
    model->setSelection(FrameRange{200, 400});
    const Planes take = noisePlanes(2, takeFrames + 7, 2);
    record(RecordMode::replace, take);
    EXPECT_EQ(planesOf(model->content()), concatenated({slice(base, 0, 200), slice(take, 0, takeFrames)}));
    finish();
    EXPECT_EQ(planesOf(model->content()), concatenated({slice(base, 0, 200), take}));

    // A take shorter than the selection replaces the whole selection.
    use(testing::rampContent(20000));
    model->setSelection(FrameRange{100, 15000});
    const Planes shortTake = noisePlanes(2, 50, 3);
    record(RecordMode::replace, shortTake);
    finish();
    EXPECT_EQ(planesOf(model->content()),
              concatenated({slice(base, 0, 100), shortTake, slice(base, 15000, 20000)}));
}

TEST_F(RecordingTest, AppendGoesAfterTheEndWhateverTheCursor) {
    use(testing::rampContent(1000));
    model->setCursor(10);
    const Planes take = noisePlanes(2, takeFrames + 1, 4);
    record(RecordMode::append, take);
    EXPECT_EQ(model->recordHead(), 1000 + takeFrames);
    finish();
    EXPECT_EQ(planesOf(model->content()), concatenated({base, take}));
}

TEST_F(RecordingTest, IntoAnEmptyDocumentTheTakeBecomesTheDocument) {
    use(AudioContent(2, 44100), {{1, "mono", "Mono", 1, 96000}});
    const Planes take = noisePlanes(1, takeFrames + 3, 5);
    record(RecordMode::insert, take);
    EXPECT_TRUE(model->liveTakeVisible());
    EXPECT_EQ(model->content().sampleRate(), 96000);
    EXPECT_EQ(model->content().frameCount(), takeFrames);
    finish();
    EXPECT_EQ(planesOf(model->content()), take);
    EXPECT_EQ(model->content().sampleRate(), 96000);
    ASSERT_TRUE(model->fileInfo());
    EXPECT_EQ(model->fileInfo()->frameCount, takeFrames + 3);
    EXPECT_EQ(stack.undoText(), "Record");
    stack.undo();
    EXPECT_EQ(model->content().frameCount(), 0);
}

TEST_F(RecordingTest, ATakeAtAnotherRateIsHiddenThenConvertedAndNamedSo) {
    use(testing::rampContent(1000, 2, 44100));
    model->setCursor(500);
    const Planes take = noisePlanes(2, takeFrames, 6);
    record(RecordMode::insert, take);
    EXPECT_FALSE(model->liveTakeVisible());
    EXPECT_EQ(planesOf(model->content()), base); // the head alone moves
    EXPECT_EQ(model->recordHead(), 500 + static_cast<int64_t>(44100.0 / 48000.0 * takeFrames));
    finish();
    const int64_t converted = Resampler::outputFrameCount(takeFrames, 48000, 44100);
    EXPECT_EQ(model->content().frameCount(), 1000 + converted);
    EXPECT_EQ(model->content().sampleRate(), 44100);
    EXPECT_EQ(slice(planesOf(model->content()), 500 + converted, 1000 + converted), slice(base, 500, 1000));
    EXPECT_EQ(stack.undoText(), "Record (converted from 48000 Hz)");
}

TEST_F(RecordingTest, AnEmptyTakeLeavesNoTraceAndPlayWaitsForTheTake) {
    use(testing::rampContent(1000));
    recorder->recorder().arm();
    recorder->recorder().start();
    model->play(false);
    EXPECT_EQ(probe->starts, 0); // refused while recording
    model->togglePlayback();     // stops the take
    EXPECT_FALSE(recorder->isRecording());
    testing::drainJobs();
    EXPECT_EQ(stack.count(), 0);
    EXPECT_EQ(planesOf(model->content()), base);
    EXPECT_FALSE(model->recordHead());
}

// The take is on disk until it is in the document: while the conversion job runs, and for good
// when the document closes mid-take.
TEST_F(RecordingTest, TheSafetyFileStaysUntilTheTakeIsInTheDocument) {
    const auto folder =
        std::filesystem::temp_directory_path() / ("harlune-recording-safety-" + std::to_string(::getpid()));
    std::filesystem::remove_all(folder);
    use(testing::rampContent(1000), {{1, "in", "In", 2, 48000}}, folder);
    record(RecordMode::insert, noisePlanes(2, takeFrames, 8));
    ASSERT_TRUE(recorder->recorder().safetyPath());
    const std::filesystem::path kept = *recorder->recorder().safetyPath();
    recorder->recorder().stop(); // the job that puts the take in runs now
    EXPECT_TRUE(std::filesystem::exists(kept));
    ASSERT_TRUE(QTest::qWaitFor([this] { return !model->busy(); }, 20000));
    EXPECT_EQ(stack.undoText(), "Record");
    EXPECT_FALSE(std::filesystem::exists(kept));

    record(RecordMode::append, noisePlanes(2, takeFrames, 9));
    const std::filesystem::path orphan = *recorder->recorder().safetyPath();
    model.reset(); // the window closes during the take
    EXPECT_TRUE(std::filesystem::exists(orphan));
    std::filesystem::remove_all(folder);
}

} // namespace
} // namespace harlune
