// The edit and marker commands on the model. What delete, trim, paste, paste mix, insert silence
// and the marker commands do to audio, markers, selection, cursor and channels is checked step by
// step against a plain model in EditCommandsRandomizedTest; here are the undo names, the
// envelopes, the clipboard across documents and formats, and cases the random walk never meets.
#include "base/HarluneError.h"
#include "core/AudioBlock.h"
#include "editor/EditorTestSupport.h"
#include "support/TestAudio.h"

#include <QSignalSpy>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <utility>

namespace harlune {
namespace {

using testing::framesOf;
using testing::markerAt;

// The master curve's points as frames and gains (edits give points fresh identities).
std::vector<std::pair<int64_t, double>> curve(const EnvelopeSet& set) {
    std::vector<std::pair<int64_t, double>> points;
    for (const EnvelopePoint& point : set.master.points())
        points.emplace_back(point.frame, point.gainDB);
    return points;
}

/// A sine of `hz` at `rate` and amplitude 0.5 on two channels.
AudioContent sine(int64_t frames, double rate, double hz) {
    std::vector<float> plane(static_cast<size_t>(frames));
    for (int64_t i = 0; i < frames; ++i)
        plane[static_cast<size_t>(i)] =
            0.5f * static_cast<float>(std::sin(2 * M_PI * hz * static_cast<double>(i) / rate));
    return AudioContent({plane, plane}, rate);
}

using Command = std::function<void(EditorModel&)>;
Uuid last(const EditorModel& model) {
    return model.markers().back().id;
}

class EditCommandsTest : public testing::ModelTest {};

TEST_F(EditCommandsTest, EachCommandLeavesOneNamedUndoStep) {
    model->clipboard().setContent(AudioContent({{0.5f, 0.5f}, {1, 1}}, 48000));
    model->setMarkers({markerAt(10), markerAt(20)});
    // Each command runs on the selection and channels of its row.
    const struct {
        const char* name;
        std::optional<FrameRange> selection;
        ChannelSet channels;
        Command command;
    } commands[] = {
        {"Cut", FrameRange{100, 200}, {0, 1}, Command([](EditorModel& m) { m.deleteNamed("Cut"); })},
        {"Delete", FrameRange{100, 200}, {0}, Command([](EditorModel& m) { m.deleteNamed("Delete"); })},
        {"Trim", FrameRange{0, 800}, {1}, &EditorModel::trimToSelection},
        {"Paste", FrameRange{10, 20}, {0}, &EditorModel::paste},
        {"Paste Mix", std::nullopt, {0, 1}, &EditorModel::pasteMix},
        {"Insert Silence", {}, {0, 1}, Command([](EditorModel& m) { m.insertSilence(10); })},
        {"Add Marker", {}, {0, 1}, Command([](EditorModel& m) { m.addMarker(5); })},
        {"Remove Marker", {}, {0, 1}, Command([](EditorModel& m) { m.removeMarker(last(m)); })},
        {"Rename Marker", {}, {0, 1}, Command([](EditorModel& m) { m.renameMarker(last(m), "Verse"); })},
        {"Move Marker", {}, {0, 1}, Command([](EditorModel& m) { m.moveMarker(last(m), 90, true); })},
    };
    for (const auto& c : commands) {
        model->setSelection(c.selection, c.channels);
        const int before = stack.count();
        c.command(*model);
        EXPECT_EQ(stack.count(), before + 1) << c.name;
        EXPECT_EQ(stack.undoText(), c.name);
    }
    // A negative length leaves no step; the other no-op commands are in the randomized test.
    model->insertSilence(-5);
    EXPECT_EQ(stack.count(), 10);
}

TEST_F(EditCommandsTest, DeleteWithNoActiveChannelSilencesNothingAndKeepsTheLength) {
    const testing::Planes before = testing::planesOf(model->content());
    model->setSelection(FrameRange{100, 300}, ChannelSet{});
    ASSERT_EQ(model->targetChannels(), ChannelSet{});
    model->deleteNamed("Delete");
    EXPECT_EQ(testing::planesOf(model->content()), before);
    EXPECT_EQ(model->selection(), (FrameRange{100, 300}));
}

TEST(EnvelopeLookupDeathTest, aNegativeChannelIsAProgrammersError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EnvelopeSet set;
    EXPECT_DEATH(set.edit(-1), "negative channel");
    EXPECT_DEATH((void)std::as_const(set)[-1], "negative channel");
}

TEST_F(EditCommandsTest, TrimAndDeleteCarryTheEnvelopesAlong) {
    const EnvelopeSet envelopes(
        GainEnvelope({EnvelopePoint(100, -6), EnvelopePoint(250, -3), EnvelopePoint(600, 0)}));
    model->setEnvelopes(envelopes);
    model->setSelection(FrameRange{200, 300}, std::nullopt);
    model->deleteNamed("Delete");
    EXPECT_EQ(curve(model->envelopes()), curve(envelopes.adjusted({200, 300}, 0)));
    EXPECT_EQ(model->envelopes().master.points().back().frame, 500);
    stack.undo();
    model->trimToSelection();
    EXPECT_EQ(curve(model->envelopes()), curve(envelopes.adjusted({300, 1000}, 0).adjusted({0, 200}, 0)));
    EXPECT_EQ(model->envelopes().master.points().front().frame, 50); // the point at 250
}

TEST_F(EditCommandsTest, CopySharesBlocksAndTheClipboardOutlivesItsDocument) {
    model->copy();
    EXPECT_FALSE(model->clipboard().content());
    EXPECT_EQ(model->clipboard().changeCount(), 0);

    auto shared = std::make_shared<AudioClipboard>();
    use(testing::rampContent(1000, 2), shared);
    model->setSelection(FrameRange{0, 10}, std::nullopt);
    model->copy();
    EXPECT_EQ(shared->changeCount(), 1);
    const AudioBlockRef copied = model->content().segments().front().block;
    EXPECT_EQ(shared->content()->segments().front().block, copied); // a window, not a copy
    model.reset();

    use(testing::rampContent(50, 2), shared);
    model->paste();
    EXPECT_EQ(model->content().frameCount(), 60);
    EXPECT_EQ(model->selection(), (FrameRange{0, 10}));
    EXPECT_EQ(model->content().segments().front().block, copied);
}

TEST_F(EditCommandsTest, PasteIntoAnEmptyDocumentAdoptsTheClip) {
    use(AudioContent(2, 48000));
    model->clipboard().setContent(testing::rampContent(44100, 1, 44100));
    model->setViewWidth(441);
    model->pasteMix();
    EXPECT_EQ(stack.count(), 0); // nothing to mix into

    model->paste();
    EXPECT_EQ(model->content().sampleRate(), 44100);
    EXPECT_EQ(model->content().channelCount(), 1);
    EXPECT_EQ(model->selection(), (FrameRange{0, 44100}));
    EXPECT_EQ(model->activeChannels(), ChannelSet{0});
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 100); // fitted
    EXPECT_FALSE(model->busy());
    stack.undo();
    EXPECT_TRUE(model->content().isEmpty());
    EXPECT_EQ(model->content().channelCount(), 2);
}

TEST_F(EditCommandsTest, AClipOfAnotherRateIsConvertedInTheBackgroundAsOnePaste) {
    use(sine(44100, 44100, 1000));
    model->clipboard().setContent(sine(48000, 48000, 1000));
    model->setMarkers({markerAt(20000)});
    model->setCursor(10000);
    model->paste();
    ASSERT_TRUE(model->busy());
    EXPECT_EQ(model->busy()->title, "Converting clipboard sample rate");
    EXPECT_EQ(stack.count(), 0);
    ASSERT_TRUE(waitUntilIdle());

    EXPECT_EQ(stack.count(), 1);
    EXPECT_EQ(stack.undoText(), "Paste");
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(model->content().frameCount(), 88200);
    EXPECT_EQ(model->selection(), (FrameRange{10000, 54100}));
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{64100}));
    // Still the 1 kHz tone, in phase, at the document's rate: 44.1 frames per cycle.
    double error = 0;
    for (int64_t i = 30000; i < 34410; ++i) {
        const double expected = 0.5 * std::sin(2 * M_PI * 1000 * static_cast<double>(i - 10000) / 44100);
        error = std::max(error, std::abs(expected - model->content().sample(1, i)));
    }
    EXPECT_LT(error, 0.01);
    stack.undo();
    EXPECT_EQ(model->content().frameCount(), 44100);
}

TEST_F(EditCommandsTest, ACancelledOrOrphanedConversionPastesNothing) {
    use(testing::rampContent(1000, 2, 44100));
    // Long enough that the cancel lands before the end; if it does not, the result is dropped anyway.
    model->clipboard().setContent(AudioContent::silence(48000 * 60, 2, 48000));
    model->pasteMix();
    ASSERT_TRUE(model->busy());
    model->busy()->token->cancel();
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(stack.count(), 0);
    EXPECT_EQ(model->content().frameCount(), 1000);
    EXPECT_TRUE(errors.empty());

    model->clipboard().setContent(AudioContent::silence(4800, 2, 48000));
    model->paste();
    model.reset();
    testing::drainJobs();
    EXPECT_EQ(stack.count(), 0);
}

// Markers ------------------------------------------------------------------------------------------

// Where a marker goes without a playing engine, and its name, are checked in the randomized test.
TEST_F(EditCommandsTest, WhilePlayingAMarkerGoesToThePlayhead) {
    model->setSelection(FrameRange{100, 200}, std::nullopt);
    model->setIsPlaying(true);
    model->setPlayhead(50);
    model->addMarker();
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{50}));
}

TEST_F(EditCommandsTest, JumpsSkipTheMarkerTheyStandOnAndMoveThePlayingEngine) {
    model->setMarkers({markerAt(101), markerAt(102), markerAt(500)});
    model->setCursor(100);
    const std::pair<bool, int64_t> jumps[] = {
        {true, 102}, {true, 500}, {true, 500}, {false, 102}, {false, 0}};
    for (const auto& [next, expected] : jumps) {
        model->jumpToMarker(next);
        EXPECT_EQ(model->cursor(), expected); // 101 lies within a frame of 102; none before goes to 0
    }
    EXPECT_EQ(probe->setPosition, 0); // not playing
    EXPECT_EQ(stack.count(), 0);

    model->setIsPlaying(true);
    model->setPlayhead(420);
    model->jumpToMarker(true);
    EXPECT_EQ(model->playhead(), 500);
    EXPECT_EQ(probe->lastPosition, 500);
}

TEST_F(EditCommandsTest, SeekAndGoToTheEnds) {
    model->setViewWidth(100);
    model->setFramesPerPoint(1);
    model->seek(5000);
    EXPECT_EQ(model->cursor(), 1000);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 900); // clamped after showing a tenth before the frame

    model->setSelection(FrameRange{10, 20}, std::nullopt);
    model->setIsPlaying(true);
    model->goToStart();
    EXPECT_FALSE(model->isPlaying());
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(model->cursor(), 0);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
    EXPECT_EQ(probe->setPosition, 0); // stopped first
    model->goToEnd();
    EXPECT_EQ(model->cursor(), 1000);
}

} // namespace
} // namespace harlune
