// Observation, the undo frame, restore, load and stop. What undo and redo bring back (content,
// markers, and the selection and cursor that stood when undo ran, clamped to the content) is
// checked step by step in EditCommandsRandomizedTest.
#include "editor/EditorTestSupport.h"

#include <QSettings>
#include <QSignalSpy>
#include <gtest/gtest.h>

namespace harlune {
namespace {

class EditorModelUndoTest : public testing::ModelTest {
protected:
    /// A command by the model's one frame: next from snapshot, before, restore, register.
    void edit(const QString& name, const std::function<void(EditState&)>& change) {
        EditState next = model->snapshot();
        change(next);
        EditState before = model->snapshot();
        model->restore(next);
        model->registerUndo(std::move(before), name);
    }
};

TEST_F(EditorModelUndoTest, AnEqualValueNotifiesNobodyButRunsTheFollowUps) {
    EXPECT_EQ(model->contentVersion(), 1); // construction counts one change
    EXPECT_EQ(model->rack().processMask(), (std::vector<bool>{true, true}));
    QSignalSpy channels(model.get(), &EditorModel::activeChannelsChanged);
    model->rack().setProcessMask({false, false});
    model->setActiveChannels({0, 1});
    EXPECT_EQ(channels.count(), 0);
    EXPECT_EQ(model->rack().processMask(), (std::vector<bool>{true, true}));
    model->setActiveChannels({1});
    EXPECT_EQ(channels.count(), 1);
    EXPECT_EQ(model->rack().processMask(), (std::vector<bool>{false, true}));

    QSignalSpy looping(model.get(), &EditorModel::isLoopingChanged);
    model->setIsLooping(false);
    EXPECT_EQ(looping.count(), 0);
    EXPECT_EQ(probe->setLooping, 1);

    // A preference is written even when the value does not change.
    ASSERT_FALSE(QSettings("Harlune", "Harlune").contains("timeFormat"));
    model->setTimeFormat(TimeFormat::hms);
    EXPECT_EQ(QSettings("Harlune", "Harlune").value("timeFormat").toString(), "hms");

    // Content: the same blocks notify nobody, but the versions still rise and analysis runs.
    QSignalSpy content(model.get(), &EditorModel::contentChanged);
    const int64_t version = model->contentVersion();
    const int64_t audioVersion = model->audioVersion();
    const int analyses = probe->scheduleAnalysis;
    model->setContent(model->content());
    EXPECT_EQ(content.count(), 0);
    EXPECT_EQ(model->contentVersion(), version + 1);
    EXPECT_EQ(model->audioVersion(), audioVersion + 1);
    EXPECT_EQ(probe->scheduleAnalysis, analyses + 1);

    // The selection: an empty range reads back absent; the follow-up runs only on a change.
    const int selectionAnalyses = probe->scheduleSelectionAnalysis;
    model->setSelection(FrameRange{5, 5});
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(probe->scheduleSelectionAnalysis, selectionAnalyses);
    model->setSelection(FrameRange{10, 20});
    model->setSelection(FrameRange{10, 20});
    EXPECT_EQ(probe->scheduleSelectionAnalysis, selectionAnalyses + 1);

    // While a take is recorded the version rises but nothing is measured.
    model->analysisSuspended() = true;
    model->contentDidChange();
    EXPECT_EQ(model->contentVersion(), version + 2);
    EXPECT_EQ(probe->scheduleAnalysis, analyses + 1);
}

TEST_F(EditorModelUndoTest, EnvelopeChangesReachThePlayerAndTheMeasurements) {
    const int handovers = probe->handovers;
    const int64_t audioVersion = model->audioVersion();
    model->setEnvelopes(model->envelopes());
    EXPECT_EQ(probe->handovers, handovers);
    EXPECT_EQ(probe->scheduleEnvelopeAnalysis, 0);

    const EnvelopeSet louder(GainEnvelope({EnvelopePoint(0, 0), EnvelopePoint(500, 6)}));
    model->setEnvelopes(louder);
    EXPECT_EQ(probe->handovers, handovers + 1);
    EXPECT_EQ(probe->envelopes, louder);
    EXPECT_EQ(model->audioVersion(), audioVersion + 1);
    EXPECT_EQ(model->contentVersion(), 1); // the waveform did not change
    EXPECT_EQ(probe->scheduleEnvelopeAnalysis, 1);
    const int selectionAnalyses = probe->scheduleSelectionAnalysis;
    model->setSelection(FrameRange{0, 10});
    model->setEnvelopes(EnvelopeSet());
    EXPECT_EQ(probe->scheduleSelectionAnalysis, selectionAnalyses + 2);
}

TEST_F(EditorModelUndoTest, EachEditUndoAndRedoHandsContentAndEnvelopesOverOnce) {
    model->setEnvelopes(EnvelopeSet(GainEnvelope({EnvelopePoint(100, -6), EnvelopePoint(900, 0)})));
    model->setSelection(FrameRange{200, 500});
    model->setIsLooping(true);
    model->setIsPlaying(true);
    const auto expectOneHandover = [&](const char* step, const std::function<void()>& action) {
        const int before = probe->handovers;
        action();
        EXPECT_EQ(probe->handovers, before + 1) << step;
        ASSERT_TRUE(probe->content) << step;
        EXPECT_EQ(probe->content->frameCount(), model->content().frameCount()) << step;
        EXPECT_EQ(probe->envelopes, model->envelopes()) << step;
        EXPECT_EQ(probe->lastRange, model->playRange()) << step;
    };
    expectOneHandover("delete", [&] { model->deleteNamed("Delete"); });
    expectOneHandover("undo", [&] { stack.undo(); });
    expectOneHandover("redo", [&] { stack.redo(); });
    expectOneHandover("envelopes", [&] { model->setEnvelopes(EnvelopeSet()); });
    // Rate and channels kept: play goes on over the new state.
    EXPECT_TRUE(model->isPlaying());
    EXPECT_EQ(probe->pause, 0);

    // A change of format stops play before the hand-over.
    edit("Mix to Mono", [](EditState& s) { s.content = testing::rampContent(1000, 1); });
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(probe->pause, 1);
}

TEST_F(EditorModelUndoTest, StepsNeedAStackAndAModel) {
    edit("Move Cursor", [](EditState& s) { s.cursor = 300; });
    EXPECT_EQ(stack.undoText(), "Move Cursor");
    stack.undo();
    EXPECT_EQ(model->cursor(), 0);
    stack.redo(); // pushing did not replay the change, redo does
    EXPECT_EQ(model->cursor(), 300);

    // The document's stack went away first: edits go through unrecorded.
    auto document = std::make_unique<QUndoStack>();
    model->setUndoManager(document.get());
    document.reset();
    EXPECT_EQ(model->undoManager(), nullptr);
    edit("Edit", [](EditState& s) { s.cursor = 11; });
    EXPECT_EQ(model->cursor(), 11);

    // The model went away first: its steps do nothing.
    model->setUndoManager(&stack);
    edit("Edit", [](EditState& s) { s.cursor = 12; });
    model.reset();
    stack.undo();
    stack.redo();
    EXPECT_EQ(stack.count(), 2);
}

TEST_F(EditorModelUndoTest, RestoreFitsChannelsEnvelopesAndTargetToTheContent) {
    use(testing::rampContent(1000, 4));
    const GainEnvelope master({EnvelopePoint(10, -3)});
    const EnvelopeSet fourChannels(master, std::vector<GainEnvelope>(4, GainEnvelope({EnvelopePoint(5, 2)})),
                                   {1, 2, 3, 4});
    edit("Draw", [&](EditState& s) {
        s.envelope = fourChannels;
        s.activeChannels = {1, 3};
    });
    model->setEnvelopeTarget(3);

    edit("Mix Down", [](EditState& s) { s.content = testing::rampContent(1000, 2); });
    EXPECT_EQ(model->activeChannels(), ChannelSet{1});
    EXPECT_EQ(model->rack().processMask(), (std::vector<bool>{false, true}));
    EXPECT_EQ(model->envelopes(), fourChannels.fitted(2));
    EXPECT_TRUE(model->envelopes().channels.empty());
    EXPECT_FALSE(model->envelopeTarget());

    stack.undo();
    EXPECT_EQ(model->envelopes(), fourChannels);
    model->setEnvelopeTarget(1);
    stack.redo();
    EXPECT_EQ(model->envelopeTarget(), 1);

    // Nothing left of the active channels: all become active.
    edit("Select", [](EditState& s) { s.activeChannels = {2, 3}; });
    EXPECT_EQ(model->activeChannels(), (ChannelSet{0, 1}));
    EXPECT_FALSE(model->targetChannels());
}

TEST_F(EditorModelUndoTest, ARateChangeRescalesViewAndGridBothWays) {
    use(AudioContent::silence(960000, 1, 48000));
    model->setFramesPerPoint(100);
    model->setScrollFrame(1000);
    model->setGrid(TempoGrid(100, 3, 4800));
    const TempoGrid grid = model->grid();

    edit("Resample", [](EditState& s) { s.content = AudioContent::silence(1920000, 1, 96000); });
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 200);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 2000);
    EXPECT_EQ(model->grid().downbeatFrame, 9600);
    stack.undo();
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 100);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 1000);
    EXPECT_EQ(model->grid(), grid);
}

TEST_F(EditorModelUndoTest, TheMeterResetsOnlyWhenTheChannelCountChanges) {
    MeterReading reading = MeterReading::reset(2);
    reading.peakDB = {-3, -4};
    model->setMeter(reading);
    edit("Cursor", [](EditState& s) { s.cursor = 5; });
    EXPECT_EQ(model->meter(), reading);
    edit("Mono", [](EditState& s) { s.content = testing::rampContent(1000, 1); });
    EXPECT_EQ(model->meter(), MeterReading::reset(1));
}

TEST_F(EditorModelUndoTest, LoadResetsTheDocumentButKeepsGridAndUndo) {
    edit("Edit", [](EditState& s) {
        s.cursor = 50;
        s.selection = FrameRange{1, 9};
        s.activeChannels = {0};
        s.markers = {Marker{}};
        s.envelope = EnvelopeSet(GainEnvelope({EnvelopePoint(0, -20)}));
    });
    model->setEnvelopeTarget(1);
    model->setGrid(TempoGrid(90, 4, 0));
    model->setIsPlaying(true);
    const int64_t audioVersion = model->audioVersion();

    AudioFileInfo info;
    info.codecName = "FLAC";
    model->load(testing::rampContent(80000, 1, 44100), info);
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(probe->pause, 1);
    EXPECT_EQ(model->audioVersion(), audioVersion + 1); // content and envelopes in one step
    EXPECT_EQ(probe->envelopes, EnvelopeSet());
    EXPECT_EQ(probe->content->frameCount(), 80000);
    EXPECT_EQ(model->fileInfo(), info);
    EXPECT_TRUE(model->markers().empty());
    EXPECT_FALSE(model->envelopeTarget());
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(model->cursor(), 0);
    EXPECT_EQ(model->activeChannels(), ChannelSet{0});
    EXPECT_EQ(model->meter(), MeterReading::reset(1));
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 80000.0 / 800);
    EXPECT_EQ(model->grid(), TempoGrid(90, 4, 0));
    EXPECT_EQ(stack.count(), 1);
}

TEST_F(EditorModelUndoTest, StopMovesTheCursorOnlyWhenAskedAndNothingIsSelected) {
    model->stop(true); // not playing: nothing
    EXPECT_EQ(probe->pause, 0);
    const struct {
        int64_t playhead;
        bool keepPosition;
        std::optional<FrameRange> selection;
        int64_t cursor;
    } cases[] = {
        {600, true, std::nullopt, 600},
        {700, true, FrameRange{10, 20}, 600},
        {5000, true, std::nullopt, 1000}, // clamped
        {10, false, std::nullopt, 1000},
    };
    for (const auto& c : cases) {
        model->setSelection(c.selection);
        model->setIsPlaying(true);
        model->setPlayhead(c.playhead);
        model->setMeter(MeterReading{});
        model->stop(c.keepPosition);
        EXPECT_FALSE(model->isPlaying());
        EXPECT_EQ(model->cursor(), c.cursor) << c.playhead;
        EXPECT_EQ(model->meter(), MeterReading::reset(2));
    }
    EXPECT_EQ(probe->pause, 4);
}

} // namespace
} // namespace harlune
