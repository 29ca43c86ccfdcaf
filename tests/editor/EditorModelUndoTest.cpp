#include "editor/EditorModel.h"
#include "editor/EditorTestSupport.h"
#include "editor/Preferences.h"

#include <QSettings>
#include <QSignalSpy>
#include <QUndoStack>
#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::Probe;

class EditorModelUndoTest : public ::testing::Test {
protected:
    void SetUp() override { testing::clearPreferences(); }

    /// A command by the model's one frame: next from snapshot, before, restore, register.
    static void edit(EditorModel& model, const QString& name, const std::function<void(EditState&)>& change) {
        EditState next = model.snapshot();
        change(next);
        EditState before = model.snapshot();
        model.restore(next);
        model.registerUndo(std::move(before), name);
    }

    /// A model recording its steps on `stack`.
    std::unique_ptr<EditorModel> undoable(AudioContent content) {
        auto model = testing::probedModel(std::move(content), probe);
        model->setUndoManager(&stack);
        return model;
    }

    std::shared_ptr<Probe> probe = std::make_shared<Probe>();
    QUndoStack stack;
};

// Observation ------------------------------------------------------------------------------------

TEST_F(EditorModelUndoTest, EqualValueNotifiesNobodyButRunsFollowUps) {
    auto model = testing::probedModel(testing::rampContent(1000), probe);

    QSignalSpy channelsSpy(model.get(), &EditorModel::activeChannelsChanged);
    const int maskWrites = probe->processMaskWrites;
    model->setActiveChannels({0, 1});
    EXPECT_EQ(channelsSpy.count(), 0);
    EXPECT_EQ(probe->processMaskWrites, maskWrites + 1);
    model->setActiveChannels({1});
    EXPECT_EQ(channelsSpy.count(), 1);
    EXPECT_EQ(probe->processMask, (std::vector<bool>{false, true}));

    QSignalSpy loopSpy(model.get(), &EditorModel::isLoopingChanged);
    model->setIsLooping(false);
    EXPECT_EQ(loopSpy.count(), 0);
    EXPECT_EQ(probe->setLooping, 1);
    model->setIsLooping(true);
    EXPECT_EQ(loopSpy.count(), 1);
    EXPECT_TRUE(probe->lastLooping);

    // A preference is written even when the value does not change.
    QSignalSpy formatSpy(model.get(), &EditorModel::timeFormatChanged);
    ASSERT_FALSE(QSettings("Harlune", "Harlune").contains("timeFormat"));
    model->setTimeFormat(TimeFormat::hms);
    EXPECT_EQ(formatSpy.count(), 0);
    EXPECT_EQ(QSettings("Harlune", "Harlune").value("timeFormat").toString(), "hms");

    // Content: the same blocks notify nobody, but the version still rises and analysis runs.
    QSignalSpy contentSpy(model.get(), &EditorModel::contentChanged);
    QSignalSpy versionSpy(model.get(), &EditorModel::contentVersionChanged);
    const int64_t version = model->contentVersion();
    const int analyses = probe->scheduleAnalysis;
    model->setContent(model->content());
    EXPECT_EQ(contentSpy.count(), 0);
    EXPECT_EQ(versionSpy.count(), 1);
    EXPECT_EQ(model->contentVersion(), version + 1);
    EXPECT_EQ(probe->scheduleAnalysis, analyses + 1);

    // The selection's follow-up runs only on a real change.
    const int selectionAnalyses = probe->scheduleSelectionAnalysis;
    model->setSelection(std::optional<FrameRange>());
    EXPECT_EQ(probe->scheduleSelectionAnalysis, selectionAnalyses);
    model->setSelection(FrameRange{10, 20});
    EXPECT_EQ(probe->scheduleSelectionAnalysis, selectionAnalyses + 1);
    model->setSelection(FrameRange{10, 20});
    EXPECT_EQ(probe->scheduleSelectionAnalysis, selectionAnalyses + 1);
}

TEST_F(EditorModelUndoTest, ConstructionCountsOneContentChangeAndActivatesAllChannels) {
    auto model = testing::probedModel(testing::rampContent(100, 3), probe);
    EXPECT_EQ(model->contentVersion(), 1);
    EXPECT_EQ(probe->scheduleAnalysis, 1);
    EXPECT_EQ(model->activeChannels(), (ChannelSet{0, 1, 2}));
    EXPECT_EQ(probe->processMask, (std::vector<bool>{true, true, true}));
    EXPECT_EQ(model->meter(), MeterReading::reset(3));
    EXPECT_FALSE(model->targetChannels());
}

TEST_F(EditorModelUndoTest, EmptySelectionReadsBackAbsent) {
    auto model = testing::probedModel(testing::rampContent(100), probe);
    model->setSelection(FrameRange{5, 5});
    EXPECT_FALSE(model->selection());

    model->setSelection(FrameRange{2, 8});
    QSignalSpy spy(model.get(), &EditorModel::selectionChanged);
    model->setSelection(FrameRange{5, 5});
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(spy.count(), 1);
}

TEST_F(EditorModelUndoTest, ContentDidChangeRespectsSuspendedAnalysis) {
    auto model = testing::probedModel(testing::rampContent(100), probe);
    model->setSelection(FrameRange{1, 50});
    const int analyses = probe->scheduleAnalysis;
    const int selectionAnalyses = probe->scheduleSelectionAnalysis;
    model->contentDidChange();
    EXPECT_EQ(probe->scheduleAnalysis, analyses + 1);
    EXPECT_EQ(probe->scheduleSelectionAnalysis, selectionAnalyses + 1);

    model->analysisSuspended() = true;
    const int64_t version = model->contentVersion();
    model->contentDidChange();
    EXPECT_EQ(model->contentVersion(), version + 1);
    EXPECT_EQ(probe->scheduleAnalysis, analyses + 1);
}

// The undo frame ---------------------------------------------------------------------------------
// What undo and redo bring back (content, markers, and the selection and cursor that stood when
// undo ran, clamped to the content) is checked step by step in EditCommandsRandomizedTest.

TEST_F(EditorModelUndoTest, PushingDoesNotReplayTheChange) {
    auto model = undoable(testing::rampContent(1000));

    edit(*model, "Move Cursor", [](EditState& s) { s.cursor = 300; });
    EXPECT_EQ(model->cursor(), 300);
    EXPECT_EQ(stack.count(), 1);
    EXPECT_EQ(stack.undoText(), "Move Cursor");

    stack.undo();
    EXPECT_EQ(model->cursor(), 0);
    EXPECT_EQ(stack.redoText(), "Move Cursor");
    stack.redo();
    EXPECT_EQ(model->cursor(), 300);
}

TEST_F(EditorModelUndoTest, WithoutAnUndoStackEditsGoThroughUnrecorded) {
    auto model = testing::probedModel(testing::rampContent(1000), probe);
    edit(*model, "Edit", [](EditState& s) { s.cursor = 9; });
    EXPECT_EQ(model->cursor(), 9);

    auto document = std::make_unique<QUndoStack>();
    model->setUndoManager(document.get());
    document.reset(); // the document went away first: the weak reference clears
    EXPECT_EQ(model->undoManager(), nullptr);
    edit(*model, "Edit", [](EditState& s) { s.cursor = 11; });
    EXPECT_EQ(model->cursor(), 11);
}

TEST_F(EditorModelUndoTest, UndoAfterTheModelIsGoneDoesNothing) {
    {
        auto model = undoable(testing::rampContent(1000));
        edit(*model, "Edit", [](EditState& s) { s.cursor = 9; });
    }
    stack.undo();
    stack.redo();
    EXPECT_EQ(stack.count(), 1);
}

// restore ------------------------------------------------------------------------------------------

TEST_F(EditorModelUndoTest, RestoreDropsChannelsTheContentDoesNotHave) {
    auto model = testing::probedModel(testing::rampContent(1000, 4), probe);
    EditState state = model->snapshot();
    state.content = testing::rampContent(1000, 2);

    state.activeChannels = {1, 3};
    model->restore(state);
    EXPECT_EQ(model->activeChannels(), (ChannelSet{1}));
    EXPECT_EQ(probe->processMask, (std::vector<bool>{false, true}));
    EXPECT_EQ(model->targetChannels(), (ChannelSet{1}));

    state.activeChannels = {2, 3};
    model->restore(state);
    EXPECT_EQ(model->activeChannels(), (ChannelSet{0, 1}));
    EXPECT_FALSE(model->targetChannels());
}

TEST_F(EditorModelUndoTest, RestoreClearsAnEnvelopeTargetBeyondTheChannels) {
    auto model = undoable(testing::rampContent(1000, 4));
    edit(*model, "Mix Down", [](EditState& s) { s.content = testing::rampContent(1000, 2); });
    stack.undo();
    model->setEnvelopeTarget(3);
    stack.redo();
    EXPECT_FALSE(model->envelopeTarget());

    stack.undo();
    model->setEnvelopeTarget(1);
    stack.redo();
    EXPECT_EQ(model->envelopeTarget(), 1);
}

TEST_F(EditorModelUndoTest, RateChangeRescalesViewAndGridAndUndoBringsThemBack) {
    auto model = undoable(AudioContent::silence(960000, 1, 48000));
    model->setFramesPerPoint(100);
    model->setScrollFrame(1000);
    model->setGrid(TempoGrid(100, 3, 4800));
    const TempoGrid grid = model->grid();

    edit(*model, "Resample", [](EditState& s) { s.content = AudioContent::silence(1920000, 1, 96000); });
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 200);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 2000);
    EXPECT_EQ(model->grid(), grid.scaled(2));
    EXPECT_EQ(model->grid().downbeatFrame, 9600);

    stack.undo();
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 100);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 1000);
    EXPECT_EQ(model->grid(), grid);
    stack.redo();
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 200);
    EXPECT_EQ(model->grid().downbeatFrame, 9600);
}

TEST_F(EditorModelUndoTest, RestoreResetsTheMeterOnlyWhenTheChannelCountChanges) {
    auto model = testing::probedModel(testing::rampContent(1000, 2), probe);
    MeterReading reading = MeterReading::reset(2);
    reading.peakDB = {-3, -4};
    reading.momentaryLUFS = -20;
    model->setMeter(reading);

    EditState state = model->snapshot();
    state.cursor = 5;
    model->restore(state);
    EXPECT_EQ(model->meter(), reading);

    state.content = testing::rampContent(1000, 1);
    model->restore(state);
    EXPECT_EQ(model->meter(), MeterReading::reset(1));
}

TEST_F(EditorModelUndoTest, UndoWhilePlayingKeepsPlayUnlessTheFormatChanges) {
    auto model = undoable(testing::rampContent(1000, 2));
    model->setSelection(FrameRange{10, 50});
    model->setIsLooping(true);
    edit(*model, "Delete", [](EditState& s) { s.content.deleteRange({0, 100}); });
    model->setIsPlaying(true);

    stack.undo();
    EXPECT_TRUE(model->isPlaying());
    EXPECT_EQ(probe->pause, 0);
    EXPECT_EQ(probe->lastRange, (FrameRange{10, 50}));

    edit(*model, "Mix to Mono", [](EditState& s) { s.content = testing::rampContent(1000, 1); });
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(probe->pause, 1);
}

// load and stop ------------------------------------------------------------------------------------

TEST_F(EditorModelUndoTest, LoadResetsTheDocumentButKeepsGridAndUndo) {
    auto model = undoable(testing::rampContent(1000, 2));
    edit(*model, "Edit", [](EditState& s) {
        s.cursor = 50;
        s.selection = FrameRange{1, 9};
        s.activeChannels = {0};
        s.markers = {Marker{}};
    });
    model->setEnvelopeTarget(1);
    model->setGrid(TempoGrid(90, 4, 0));
    model->setIsPlaying(true);

    AudioFileInfo info;
    info.codecName = "FLAC";
    model->load(testing::rampContent(80000, 1, 44100), info);

    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(probe->pause, 1);
    EXPECT_EQ(model->content().frameCount(), 80000);
    EXPECT_EQ(model->fileInfo(), info);
    EXPECT_TRUE(model->markers().empty());
    EXPECT_FALSE(model->envelopeTarget());
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(model->cursor(), 0);
    EXPECT_EQ(model->activeChannels(), (ChannelSet{0}));
    EXPECT_EQ(model->meter(), MeterReading::reset(1));
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 80000.0 / 800);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
    EXPECT_EQ(model->grid(), TempoGrid(90, 4, 0));
    EXPECT_EQ(stack.count(), 1);
}

TEST_F(EditorModelUndoTest, StopMovesTheCursorOnlyWhenAskedAndNothingIsSelected) {
    auto model = testing::probedModel(testing::rampContent(1000, 2), probe);
    model->stop(true); // not playing: nothing
    EXPECT_EQ(probe->pause, 0);

    model->setIsPlaying(true);
    model->setPlayhead(600);
    MeterReading reading = MeterReading::reset(2);
    reading.peakDB = {-1, -1};
    model->setMeter(reading);
    model->stop(true);
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(model->cursor(), 600);
    EXPECT_EQ(model->meter(), MeterReading::reset(2));
    EXPECT_EQ(probe->pause, 1);

    model->setIsPlaying(true);
    model->setPlayhead(700);
    model->setSelection(FrameRange{10, 20});
    model->stop(true);
    EXPECT_EQ(model->cursor(), 600);

    model->setSelection(std::optional<FrameRange>());
    model->setIsPlaying(true);
    model->setPlayhead(5000); // past the end: clamped
    model->stop(true);
    EXPECT_EQ(model->cursor(), 1000);

    model->setIsPlaying(true);
    model->setPlayhead(10);
    model->stop(false);
    EXPECT_EQ(model->cursor(), 1000);
}

TEST_F(EditorModelUndoTest, EnvelopeChangesReachThePlayerAndTheMeasurements) {
    auto model = testing::probedModel(testing::rampContent(1000, 2), probe);
    QSignalSpy spy(model.get(), &EditorModel::envelopesChanged);
    model->setEnvelopes(model->envelopes());
    const int handovers = probe->handovers;
    EXPECT_EQ(spy.count(), 0);
    EXPECT_EQ(probe->handovers, handovers);
    EXPECT_EQ(probe->scheduleEnvelopeAnalysis, 0);

    const int selectionAnalyses = probe->scheduleSelectionAnalysis;
    const EnvelopeSet louder(GainEnvelope({EnvelopePoint(0, 0), EnvelopePoint(500, 6)}));
    model->setEnvelopes(louder);
    EXPECT_EQ(spy.count(), 1);
    EXPECT_EQ(probe->handovers, handovers + 1);
    EXPECT_EQ(probe->scheduleEnvelopeAnalysis, 1);
    EXPECT_EQ(probe->scheduleSelectionAnalysis, selectionAnalyses); // no selection

    model->setSelection(FrameRange{0, 10});
    const int withSelection = probe->scheduleSelectionAnalysis;
    model->setEnvelopes(EnvelopeSet());
    EXPECT_EQ(probe->handovers, handovers + 2);
    EXPECT_EQ(probe->scheduleSelectionAnalysis, withSelection + 1);
}

TEST_F(EditorModelUndoTest, RestoreFitsEnvelopesToTheChannelsAndUndoBringsThemBack) {
    auto model = undoable(testing::rampContent(1000, 4));
    const GainEnvelope master({EnvelopePoint(10, -3)});
    const EnvelopeSet fourChannels(master, std::vector<GainEnvelope>(4, GainEnvelope({EnvelopePoint(5, 2)})),
                                   {1, 2, 3, 4});
    edit(*model, "Draw", [&](EditState& s) { s.envelope = fourChannels; });
    EXPECT_EQ(model->envelopes(), fourChannels);

    edit(*model, "Mix Down", [](EditState& s) { s.content = testing::rampContent(1000, 2); });
    EXPECT_EQ(model->envelopes(), fourChannels.fitted(2));
    EXPECT_EQ(model->envelopes().master, master);
    EXPECT_TRUE(model->envelopes().channels.empty());

    stack.undo();
    EXPECT_EQ(model->envelopes(), fourChannels);
    stack.undo();
    EXPECT_EQ(model->envelopes(), EnvelopeSet());
}

} // namespace
} // namespace harlune

namespace harlune {
namespace {

TEST(PlaybackHandoverTest, EachEditUndoAndRedoHandsContentAndEnvelopesOverOnce) {
    testing::clearPreferences();
    auto log = std::make_shared<Probe>();
    auto owned = testing::probedModel(testing::rampContent(1000), log);
    EditorModel& model = *owned;
    QUndoStack stack;
    model.setUndoManager(&stack);
    model.setEnvelopes(EnvelopeSet(GainEnvelope({EnvelopePoint(100, -6), EnvelopePoint(900, 0)})));
    model.setIsPlaying(true);

    const auto expectOneHandover = [&](const char* step, const std::function<void()>& action) {
        const int before = log->handovers;
        action();
        EXPECT_EQ(log->handovers, before + 1) << step;
        ASSERT_TRUE(log->content) << step;
        EXPECT_EQ(log->content->frameCount(), model.content().frameCount()) << step;
        EXPECT_EQ(log->envelopes, model.envelopes()) << step;
    };
    model.setSelection(FrameRange{200, 500});
    expectOneHandover("delete", [&] { model.deleteNamed(QStringLiteral("Delete")); });
    expectOneHandover("undo", [&] { stack.undo(); });
    expectOneHandover("redo", [&] { stack.redo(); });
    expectOneHandover("envelope", [&] { model.setEnvelopes(EnvelopeSet()); });
}

} // namespace
} // namespace harlune
