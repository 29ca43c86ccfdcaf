#include "editor/EditorModel.h"
#include "editor/EditorTestSupport.h"

#include <QSignalSpy>
#include <QUndoStack>
#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::markerAt;
using testing::Probe;

std::vector<int64_t> framesOf(const std::vector<Marker>& markers) {
    std::vector<int64_t> frames;
    for (const Marker& marker : markers)
        frames.push_back(marker.frame);
    return frames;
}

class MarkerCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::clearPreferences();
        model = testing::probedModel(testing::rampContent(1000, 2), probe);
        model->setUndoManager(&stack);
    }

    std::shared_ptr<Probe> probe = std::make_shared<Probe>();
    QUndoStack stack;
    std::unique_ptr<EditorModel> model;
};

TEST_F(MarkerCommandsTest, AddMarkerNamesByCountAndPlacesByPriority) {
    model->setCursor(300);
    model->addMarker();
    ASSERT_EQ(model->markers().size(), 1u);
    EXPECT_EQ(model->markers()[0].name, "Marker 1");
    EXPECT_EQ(model->markers()[0].frame, 300);
    EXPECT_EQ(stack.undoText(), "Add Marker");

    model->setSelection(FrameRange{100, 200}, std::nullopt);
    model->addMarker();
    model->addMarker(700);
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{100, 200 + 100, 700}));

    model->setIsPlaying(true);
    model->setPlayhead(50);
    model->addMarker();
    EXPECT_EQ(model->markers().front().frame, 50);
    EXPECT_EQ(model->markers().front().name, "Marker 4");
    EXPECT_EQ(stack.count(), 4);

    // Numbers are counts, not unique: after a removal a name may repeat.
    model->removeMarker(model->markers().back().id);
    model->addMarker(900);
    EXPECT_EQ(model->markers().back().name, "Marker 4");
    stack.undo();
    stack.undo();
    EXPECT_EQ(model->markers().size(), 4u);
}

TEST_F(MarkerCommandsTest, RemoveRenameAndUnknownIds) {
    const Marker a = markerAt(10, "A");
    Marker twin = markerAt(20, "B");
    twin.id = a.id;
    model->setMarkers({a, markerAt(15, "C"), twin});
    model->removeMarker(a.id);
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{15}));
    EXPECT_EQ(stack.undoText(), "Remove Marker");

    const Uuid id = model->markers()[0].id;
    model->renameMarker(id, QStringLiteral("C"));
    model->renameMarker(Uuid::random(), QStringLiteral("X"));
    model->removeMarker(Uuid::random());
    model->moveMarker(Uuid::random(), 5, true);
    EXPECT_EQ(stack.count(), 1);
    model->renameMarker(id, QStringLiteral("Chorus"));
    EXPECT_EQ(model->markers()[0].name, "Chorus");
    EXPECT_EQ(stack.undoText(), "Rename Marker");
    stack.undo();
    EXPECT_EQ(model->markers()[0].name, "C");
}

TEST_F(MarkerCommandsTest, MoveClampsAndSortsStably) {
    model->setMarkers({markerAt(100, "A"), markerAt(200, "B"), markerAt(300, "C")});
    const Uuid a = model->markers()[0].id;
    model->moveMarker(a, 5000, true);
    EXPECT_EQ(model->markers().back().frame, 1000);
    EXPECT_EQ(model->markers().back().name, "A");
    model->moveMarker(a, -5, true);
    EXPECT_EQ(model->markers().front().frame, 0);
    EXPECT_EQ(stack.undoText(), "Move Marker");

    // Onto another marker's frame: the two keep their order in the list.
    model->moveMarker(a, 200, true);
    EXPECT_EQ(model->markers()[0].name, "A");
    EXPECT_EQ(model->markers()[1].name, "B");
    model->moveMarker(model->markers()[2].id, 200, true);
    EXPECT_EQ(model->markers()[2].name, "C");
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{200, 200, 200}));
}

TEST_F(MarkerCommandsTest, ADragIsOneUndoStep) {
    model->setMarkers({markerAt(100, "A"), markerAt(200, "B")});
    const std::vector<Marker> original = model->markers();
    const Uuid a = original[0].id;
    QSignalSpy spy(model.get(), &EditorModel::markersChanged);
    model->moveMarker(a, 150, false);
    model->moveMarker(a, 250, false);
    EXPECT_EQ(spy.count(), 2);
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{250, 200})); // unsorted while dragging
    EXPECT_EQ(stack.count(), 0);

    model->endMarkerDrag(original);
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{200, 250}));
    EXPECT_EQ(stack.count(), 1);
    EXPECT_EQ(stack.undoText(), "Move Marker");
    stack.undo();
    EXPECT_EQ(model->markers(), original);
    stack.redo();
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{200, 250}));

    // A drag that ends where it began leaves no step.
    const std::vector<Marker> now = model->markers();
    model->moveMarker(now[0].id, 10, false);
    model->moveMarker(now[0].id, 200, false);
    model->endMarkerDrag(now);
    EXPECT_EQ(stack.count(), 1);
}

TEST_F(MarkerCommandsTest, JumpSkipsTheMarkerItStandsOn) {
    model->setMarkers({markerAt(101), markerAt(102), markerAt(500)});
    model->setCursor(100);
    model->jumpToMarker(true);
    EXPECT_EQ(model->cursor(), 102);
    model->jumpToMarker(true);
    EXPECT_EQ(model->cursor(), 500);
    model->jumpToMarker(true); // none after: stays
    EXPECT_EQ(model->cursor(), 500);
    model->jumpToMarker(false);
    EXPECT_EQ(model->cursor(), 102);
    model->jumpToMarker(false); // 101 is within a frame
    EXPECT_EQ(model->cursor(), 0);
    model->setMarkers({});
    model->setCursor(700);
    model->jumpToMarker(false);
    EXPECT_EQ(model->cursor(), 0);
    EXPECT_EQ(stack.count(), 0);
    EXPECT_EQ(probe->setPosition, 0); // not playing
}

TEST_F(MarkerCommandsTest, WhilePlayingJumpsMoveThePlayheadAndTheEngine) {
    model->setMarkers({markerAt(400), markerAt(800)});
    model->setIsPlaying(true);
    model->setPlayhead(420);
    model->setCursor(0);
    model->jumpToMarker(true);
    EXPECT_EQ(model->cursor(), 800);
    EXPECT_EQ(model->playhead(), 800);
    EXPECT_EQ(probe->setPosition, 1);
    EXPECT_EQ(probe->lastPosition, 800);
}

TEST_F(MarkerCommandsTest, SeekAndGoToTheEnds) {
    model->setViewWidth(100);
    model->setFramesPerPoint(1);
    model->seek(5000);
    EXPECT_EQ(model->cursor(), 1000);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 900); // clamped after showing a tenth before the frame
    model->seek(-3);
    EXPECT_EQ(model->cursor(), 0);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);

    model->setSelection(FrameRange{10, 20}, std::nullopt);
    model->setIsPlaying(true);
    model->goToEnd();
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(probe->pause, 1);
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(model->cursor(), 1000);
    EXPECT_EQ(probe->setPosition, 0); // stopped first

    model->setSelection(FrameRange{10, 20}, std::nullopt);
    model->setScrollFrame(500);
    model->goToStart();
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(model->cursor(), 0);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
}

} // namespace
} // namespace harlune
