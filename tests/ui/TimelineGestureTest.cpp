// The timeline's gestures driven by hand-built events (Qt 6.4's QTest::mouseMove drops
// modifiers), each checked on the model: selection to the frame, cursor, markers, envelope
// points, undo steps and their names, the pointer's shape. The view is 400 × 300 points at 100
// frames per point from frame 0, so x = frame / 100; the loudness lane spans y 170...300, its
// envelope band has its middle at y 241 and 53 points per 12 dB.
#include "document/AudioDocument.h"
#include "editor/AnalysisScheduler.h"
#include "editor/EditorModel.h"
#include "io/AudioEncoder.h"
#include "support/TestAudio.h"
#include "ui/DocumentWindows.h"
#include "ui/MainWindow.h"
#include "ui/TimelineDrawing.h"
#include "ui/TimelineReadout.h"
#include "ui/TimelineView.h"

#include <QAction>
#include <QApplication>
#include <QKeyEvent>
#include <QMenu>
#include <QMimeData>
#include <QNativeGestureEvent>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QUndoStack>
#include <QUrl>
#include <QWheelEvent>
#include <cmath>
#include <gtest/gtest.h>
#include <tuple>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr int64_t frames = 100000;
constexpr double envelopeMid = 241;
constexpr double pointsPer12dB = 53;

double yOfDB(double dB) {
    return envelopeMid - pointsPer12dB * dB / 12;
}

enum class Kind { press, move, release, doubleClick, hover };

struct Step {
    Kind kind;
    double x;
    double y;
    Qt::KeyboardModifiers modifiers = Qt::NoModifier;
};

/// A sine whose zero crossings fall every 1000 frames, so that snapping has known targets.
testing::Planes sinePlanes() {
    testing::Planes planes(2, std::vector<float>(frames));
    for (auto& plane : planes)
        for (size_t i = 0; i < plane.size(); ++i)
            plane[i] = static_cast<float>(0.5 * std::sin(M_PI * (static_cast<double>(i) + 0.5) / 1000));
    return planes;
}

EditorCollaborators quiet() {
    EditorCollaborators collaborators;
    collaborators.analysis = std::make_unique<NullAnalysisScheduler>();
    return collaborators;
}

class TimelineGestureTest : public ::testing::Test {
protected:
    void SetUp() override {
        model = std::make_unique<EditorModel>(AudioContent(sinePlanes(), rate), std::nullopt, quiet());
        model->setUndoManager(&undo);
        view = std::make_unique<TimelineView>(*model);
        view->resize(400, 300);
        view->show();
        QApplication::processEvents();
        model->setFramesPerPoint(100);
        model->setScrollFrame(0);
        model->setShowLoudnessLane(true);
        model->setLoudnessLaneHeight(130);
        model->setEnvelopeRangeDB(12);
        // Preferences other tests left behind.
        model->setSnapToZeroCrossings(false);
        model->setShowGrid(false);
        model->setSnapToGrid(true);
        view->grab(); // a drawing leaves the target chips behind
    }

    void send(const Step& step) {
        const QPointF at(step.x, step.y);
        const auto [type, button,
                    buttons] = [&]() -> std::tuple<QEvent::Type, Qt::MouseButton, Qt::MouseButtons> {
            switch (step.kind) {
            case Kind::press:
                return {QEvent::MouseButtonPress, Qt::LeftButton, Qt::LeftButton};
            case Kind::move:
                return {QEvent::MouseMove, Qt::NoButton, Qt::LeftButton};
            case Kind::hover:
                return {QEvent::MouseMove, Qt::NoButton, Qt::NoButton};
            case Kind::release:
                return {QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton};
            case Kind::doubleClick:
                return {QEvent::MouseButtonDblClick, Qt::LeftButton, Qt::LeftButton};
            }
            return {};
        }();
        QMouseEvent event(type, at, view->mapToGlobal(at), button, buttons, step.modifiers);
        QApplication::sendEvent(view.get(), &event);
    }
    void run(const std::vector<Step>& steps) {
        for (const Step& step : steps)
            send(step);
    }
    void key(int code, Qt::KeyboardModifiers modifiers = Qt::NoModifier, const QString& text = {}) {
        QKeyEvent event(QEvent::KeyPress, code, modifiers, text);
        QApplication::sendEvent(view.get(), &event);
    }
    void wheel(QPoint pixel, QPoint angle, Qt::KeyboardModifiers modifiers, QPointF at = {200, 100}) {
        QWheelEvent event(at, view->mapToGlobal(at), pixel, angle, Qt::NoButton, modifiers, Qt::NoScrollPhase,
                          false);
        QApplication::sendEvent(view.get(), &event);
    }
    std::vector<QString> undoNames() const {
        std::vector<QString> names;
        for (int i = 0; i < undo.count(); ++i)
            names.push_back(undo.text(i));
        return names;
    }
    const GainEnvelope& master() const { return model->envelopes().master; }

    QUndoStack undo;
    std::unique_ptr<EditorModel> model;
    std::unique_ptr<TimelineView> view;
};

using Range = std::optional<FrameRange>;

struct SelectRow {
    const char* name;
    Range before;
    std::vector<Marker> markers;
    std::vector<Step> steps;
    Range expected;
    ChannelSet channels;
    int64_t cursor; // -1: not checked
};

TEST_F(TimelineGestureTest, SelectionGesturesSetTheModelToTheFrame) {
    const Marker a{Uuid::random(), 10000, QStringLiteral("A")};
    const Marker b{Uuid::random(), 30000, QStringLiteral("B")};
    const std::vector<SelectRow> rows{
        {"press and release on one frame clears and puts the cursor there",
         FrameRange{1000, 5000},
         {},
         {{Kind::press, 70, 50}, {Kind::release, 70, 50}},
         std::nullopt,
         {0, 1},
         7000},
        {"a forward drag",
         std::nullopt,
         {},
         {{Kind::press, 20, 50}, {Kind::move, 40, 50}, {Kind::move, 60, 50}, {Kind::release, 60, 50}},
         FrameRange{2000, 6000},
         {0, 1},
         2000},
        {"backwards past the anchor swaps the ends without a gap",
         std::nullopt,
         {},
         {{Kind::press, 60, 50}, {Kind::move, 80, 50}, {Kind::move, 30.4, 50}, {Kind::release, 30.4, 50}},
         FrameRange{3040, 6000},
         {0, 1},
         3040},
        {"back onto the anchor clears",
         std::nullopt,
         {},
         {{Kind::press, 60, 50}, {Kind::move, 80, 50}, {Kind::move, 60, 50}, {Kind::release, 60, 50}},
         std::nullopt,
         {0, 1},
         -1},
        {"Alt in the second lane selects that channel",
         std::nullopt,
         {},
         {{Kind::press, 20, 120, Qt::AltModifier},
          {Kind::move, 60, 120, Qt::AltModifier},
          {Kind::release, 60, 120}},
         FrameRange{2000, 6000},
         {1},
         -1},
        {"Ctrl in the first lane selects that channel",
         std::nullopt,
         {},
         {{Kind::press, 20, 50, Qt::ControlModifier}, {Kind::move, 60, 50}, {Kind::release, 60, 50}},
         FrameRange{2000, 6000},
         {0},
         -1},
        {"the end edge follows the pointer",
         FrameRange{10000, 20000},
         {},
         {{Kind::press, 203, 50}, {Kind::move, 250, 50}, {Kind::release, 250, 50}},
         FrameRange{10000, 25000},
         {0, 1},
         -1},
        {"the start edge follows the pointer",
         FrameRange{10000, 20000},
         {},
         {{Kind::press, 96, 50}, {Kind::move, 50, 50}, {Kind::release, 50, 50}},
         FrameRange{5000, 20000},
         {0, 1},
         -1},
        {"a thin selection gives the end edge",
         FrameRange{10000, 10300},
         {},
         {{Kind::press, 101.5, 50}, {Kind::move, 150, 50}, {Kind::release, 150, 50}},
         FrameRange{10000, 15000},
         {0, 1},
         -1},
        {"Shift extends from the farther edge (the start)",
         FrameRange{10000, 20000},
         {},
         {{Kind::press, 250, 50, Qt::ShiftModifier}, {Kind::release, 250, 50}},
         FrameRange{10000, 25000},
         {0, 1},
         -1},
        {"Shift extends from the farther edge (the end)",
         FrameRange{10000, 20000},
         {},
         {{Kind::press, 120, 50, Qt::ShiftModifier}, {Kind::release, 120, 50}},
         FrameRange{12000, 20000},
         {0, 1},
         -1},
        {"Shift at the middle keeps the start",
         FrameRange{10000, 20000},
         {},
         {{Kind::press, 150, 50, Qt::ShiftModifier}, {Kind::release, 150, 50}},
         FrameRange{10000, 15000},
         {0, 1},
         -1},
        {"a double click selects between the markers",
         std::nullopt,
         {a, b},
         {{Kind::press, 150, 50},
          {Kind::release, 150, 50},
          {Kind::doubleClick, 150, 50},
          {Kind::move, 250, 50},
          {Kind::release, 250, 50}},
         FrameRange{10000, 30000},
         {0, 1},
         10000},
        {"a third quick click is a plain press",
         std::nullopt,
         {a, b},
         {{Kind::press, 150, 50},
          {Kind::release, 150, 50},
          {Kind::doubleClick, 150, 50},
          {Kind::release, 150, 50},
          {Kind::press, 150, 50},
          {Kind::release, 150, 50}},
         std::nullopt,
         {0, 1},
         15000},
        {"a double click past the last marker runs to the end",
         std::nullopt,
         {a, b},
         {{Kind::doubleClick, 350, 50}, {Kind::release, 350, 50}},
         FrameRange{30000, frames},
         {0, 1},
         -1},
    };
    for (const SelectRow& row : rows) {
        SCOPED_TRACE(row.name);
        model->setMarkers(row.markers);
        model->setSelection(row.before, allChannels(2));
        run(row.steps);
        EXPECT_EQ(model->selection(), row.expected);
        EXPECT_EQ(model->activeChannels(), row.channels);
        if (row.cursor >= 0) {
            EXPECT_EQ(model->cursor(), row.cursor);
        }
        EXPECT_TRUE(std::holds_alternative<drag::None>(view->drag()));
    }
    EXPECT_EQ(undo.count(), 0) << "selections make no undo step";
}

TEST_F(TimelineGestureTest, ADragPatchesThePictureToWhatAWholeDrawingShows) {
    model->setScrollFrame(3000);
    const auto picture = [&] {
        return view->grab().toImage().convertToFormat(QImage::Format_RGB32);
    };
    const auto wholeDrawing = [&] {
        const TimelineCanvas canvas{400, 300, view->devicePixelRatioF(), false, {}};
        return renderTimeline(*model, canvas).convertToFormat(QImage::Format_RGB32);
    };
    picture();
    const int rebuilds = view->cache().rebuildCount();
    // Out, back across the anchor, and onto it: the selection grows, turns over and goes.
    for (const std::vector<Step>& gesture : std::vector<std::vector<Step>>{
             {{Kind::press, 120, 50}, {Kind::move, 180, 50}, {Kind::move, 250.5, 50}},
             {{Kind::move, 90, 50}},
             {{Kind::move, 30, 50}},
             {{Kind::move, 120, 50}},
             {{Kind::move, 300, 50}, {Kind::release, 300, 50}},
             {{Kind::press, 60, 50}, {Kind::release, 60, 50}},
         }) {
        run(gesture);
        const QImage patched = picture();
        const QImage whole = wholeDrawing();
        ASSERT_EQ(patched.size(), whole.size());
        QRect differs;
        for (int y = 0; y < whole.height(); ++y)
            for (int x = 0; x < whole.width(); ++x)
                if (patched.pixel(x, y) != whole.pixel(x, y))
                    differs |= QRect(x, y, 1, 1);
        EXPECT_TRUE(differs.isEmpty())
            << differs.x() << "," << differs.y() << " " << differs.width() << "x" << differs.height();
    }
    EXPECT_EQ(view->cache().rebuildCount(), rebuilds) << "only strips are drawn again";
}

TEST_F(TimelineGestureTest, SelectionSnapsToZeroCrossingsWithinSixPoints) {
    model->setSnapToZeroCrossings(true);
    // 100 frames per point: a reach of 600 frames; the crossings lie on multiples of 1000.
    run({{Kind::press, 104, 50}, {Kind::move, 207, 50}, {Kind::release, 207, 50}});
    EXPECT_EQ(model->selection(), (FrameRange{10000, 21000}));
    // At 10 frames per point the reach is 64 frames: 10400 has no crossing that near.
    model->setFramesPerPoint(10);
    model->setScrollFrame(9000);
    run({{Kind::press, 140, 50}, {Kind::release, 140, 50}});
    EXPECT_EQ(model->cursor(), 10400);
    run({{Kind::press, 105.3, 50}, {Kind::release, 105.3, 50}});
    EXPECT_EQ(model->cursor(), 10000);
    run({{Kind::press, 106.5, 50}, {Kind::release, 106.5, 50}});
    EXPECT_EQ(model->cursor(), 10065) << "65 frames from a crossing is out of reach";
}

TEST_F(TimelineGestureTest, MarkerDragsAreOneUndoStepAndFlagsSeek) {
    const Marker a{Uuid::random(), 10000, QStringLiteral("A")};
    const Marker b{Uuid::random(), 12000, QStringLiteral("B")};
    model->setMarkers({a, b});
    // B's flag, drawn last, covers A's from x 117 on.
    send({Kind::press, 125, 10});
    EXPECT_EQ(view->cursor().shape(), Qt::ClosedHandCursor);
    run({{Kind::move, 150, 10}, {Kind::move, 260, 10}, {Kind::move, 250, 10}, {Kind::release, 250, 10}});
    EXPECT_EQ(view->cursor().shape(), Qt::OpenHandCursor);
    ASSERT_EQ(model->markers().size(), 2u);
    EXPECT_EQ(model->markers()[1].id, b.id);
    EXPECT_EQ(model->markers()[1].frame, 25000);
    EXPECT_EQ(model->markers()[0].frame, 10000);
    EXPECT_EQ(undoNames(), std::vector<QString>{QStringLiteral("Move Marker")});
    undo.undo();
    EXPECT_EQ(model->markers()[1].frame, 12000);

    // The flag reaches from 3 points left of the line to just before 60 right of it.
    send({Kind::press, 159.9, 10});
    send({Kind::move, 170, 10});
    send({Kind::release, 170, 10});
    EXPECT_EQ(model->markers()[1].frame, 17000);
    undo.undo();
    send({Kind::press, 96.9, 10}); // left of A's flag: a scrub
    send({Kind::release, 96.9, 10});
    EXPECT_EQ(model->markers()[0].frame, 10000);
    EXPECT_EQ(model->cursor(), 9690);

    // A double click on a flag seeks to its marker.
    send({Kind::doubleClick, 130, 10});
    send({Kind::release, 130, 10});
    EXPECT_EQ(model->cursor(), 12000);
    EXPECT_EQ(undo.count(), 1); // the first drag's step, undone, still on the stack
}

TEST_F(TimelineGestureTest, RulerScrubSeeksUnsnappedAndClearsTheSelection) {
    model->setSnapToZeroCrossings(true);
    model->setSelection(FrameRange{1000, 5000}, allChannels(2));
    send({Kind::press, 70.37, 10});
    EXPECT_EQ(model->selection(), std::nullopt);
    EXPECT_EQ(model->cursor(), 7037);
    send({Kind::move, 90.41, 12});
    EXPECT_EQ(model->cursor(), 9041);
    send({Kind::move, -20, 12});
    EXPECT_EQ(model->cursor(), 0);
    send({Kind::release, -20, 12});
    EXPECT_EQ(undo.count(), 0);
}

struct PointerRow {
    const char* name;
    double x;
    double y;
    Qt::CursorShape shape;
};

TEST_F(TimelineGestureTest, PointerShapesFollowWhatIsUnderThePointer) {
    model->setMarkers({Marker{Uuid::random(), 30000, QStringLiteral("A")}});
    model->setSelection(FrameRange{10000, 20000}, allChannels(2));
    EnvelopeSet set;
    set.master.insert(5000, 0);
    model->setEnvelopes(set);
    const std::vector<PointerRow> rows{
        {"the lane's top edge", 200, 172, Qt::SizeVerCursor},
        {"the loudness lane", 200, 260, Qt::CrossCursor},
        {"an envelope point", 52, envelopeMid + 3, Qt::OpenHandCursor},
        {"a marker's flag", 340, 10, Qt::OpenHandCursor},
        {"a selection's end", 204, 60, Qt::SizeHorCursor},
        {"a selection's start", 97, 120, Qt::SizeHorCursor},
        {"inside the lanes", 150, 60, Qt::IBeamCursor},
        {"the bare ruler", 150, 10, Qt::ArrowCursor},
    };
    for (const PointerRow& row : rows) {
        send({Kind::hover, row.x, row.y});
        EXPECT_EQ(view->cursor().shape(), row.shape) << row.name;
    }
}

TEST_F(TimelineGestureTest, EnvelopePointsAddDragAndRemove) {
    // A click away from the curve puts a point at the pointer's level; the release is one step.
    run({{Kind::press, 100, yOfDB(6)}, {Kind::release, 100, yOfDB(6)}});
    ASSERT_EQ(master().points().size(), 1u);
    EXPECT_EQ(master().points()[0].frame, 10000);
    EXPECT_NEAR(master().points()[0].gainDB, 6, 1e-9);
    EXPECT_EQ(undoNames(), std::vector<QString>{QStringLiteral("Adjust Gain Point")});

    // A click within 8 points of the curve keeps the curve's gain there.
    EnvelopeSet slope;
    slope.master.insert(0, -6);
    slope.master.insert(40000, 6);
    model->setEnvelopes(slope);
    run({{Kind::press, 100, yOfDB(-3) + 6}, {Kind::release, 100, yOfDB(-3) + 6}});
    ASSERT_EQ(master().points().size(), 3u);
    EXPECT_EQ(master().points()[1].frame, 10000);
    EXPECT_DOUBLE_EQ(master().points()[1].gainDB, -3);

    // Dragging a point: the readout follows, several moves make one step.
    EnvelopeSet one;
    one.master.insert(10000, 0);
    model->setEnvelopes(one);
    const Uuid id = master().points()[0].id;
    undo.clear();
    send({Kind::press, 101, envelopeMid + 2});
    send({Kind::move, 150, yOfDB(3)});
    send({Kind::move, 200, yOfDB(6)});
    ASSERT_TRUE(view->dragReadout());
    EXPECT_EQ(view->dragReadout()->text,
              QStringLiteral("+6.0 dB  @ ") + string(model->timeFormat(), 20000, rate));
    send({Kind::release, 200, yOfDB(6)});
    EXPECT_FALSE(view->dragReadout());
    ASSERT_EQ(master().points().size(), 1u);
    EXPECT_EQ(master().points()[0].id, id);
    EXPECT_EQ(master().points()[0].frame, 20000);
    EXPECT_NEAR(master().points()[0].gainDB, 6, 1e-9);
    EXPECT_EQ(undoNames(), std::vector<QString>{QStringLiteral("Adjust Gain Point")});
    undo.undo();
    EXPECT_EQ(master().points()[0].frame, 10000);
    EXPECT_EQ(master().points()[0].gainDB, 0);

    // Alt on a point removes it as one step; so does a double click.
    undo.clear();
    run({{Kind::press, 100, envelopeMid, Qt::AltModifier}, {Kind::release, 100, envelopeMid}});
    EXPECT_TRUE(master().points().empty());
    EXPECT_EQ(undoNames(), std::vector<QString>{QStringLiteral("Delete Gain Point")});
    model->setEnvelopes(one);
    run({{Kind::doubleClick, 100, envelopeMid}, {Kind::release, 100, envelopeMid}});
    EXPECT_TRUE(master().points().empty());
}

struct PointDragRow {
    const char* name;
    bool grid;
    Qt::KeyboardModifiers modifiers;
    double x;
    double dB;
    int64_t frame;
    double expectedDB;
};

TEST_F(TimelineGestureTest, PointDragsSnapToZeroDecibelsAndToSixteenths) {
    // 120 bpm at 48 kHz: a sixteenth is 6000 frames, from the downbeat at 500.
    model->setGrid(TempoGrid(120, 4, 500));
    const std::vector<PointDragRow> rows{
        {"just under 3 % of the range is 0 dB", false, Qt::NoModifier, 130, 0.35, 13000, 0},
        {"just over it stays", false, Qt::NoModifier, 130, 0.38, 13000, 0.38},
        {"below zero too", false, Qt::NoModifier, 130, -0.35, 13000, 0},
        {"the grid takes the nearest sixteenth", true, Qt::NoModifier, 130, 3, 12500, 3},
        {"Ctrl frees the point from the grid", true, Qt::ControlModifier, 130, 3, 13000, 3},
        {"beyond the band the gain is clamped to the range's edge", false, Qt::NoModifier, 130, 100, 13000,
         24},
    };
    for (const PointDragRow& row : rows) {
        SCOPED_TRACE(row.name);
        model->setShowGrid(row.grid);
        EnvelopeSet one;
        one.master.insert(10000, 0);
        model->setEnvelopes(one);
        const double y = row.dB > 30 ? 175 : yOfDB(row.dB);
        run({{Kind::press, 100, envelopeMid}, {Kind::move, row.x, y, row.modifiers}});
        ASSERT_EQ(master().points().size(), 1u);
        EXPECT_EQ(master().points()[0].frame, row.frame);
        const double expected = row.dB > 30 ? (envelopeMid - 175) / pointsPer12dB * 12 : row.expectedDB;
        EXPECT_NEAR(master().points()[0].gainDB, expected, 1e-9);
        send({Kind::release, row.x, y});
    }
}

TEST_F(TimelineGestureTest, ShiftDragRaisesASectionAsOneStep) {
    struct Row {
        const char* name;
        Range selection;
        std::vector<Marker> markers;
        FrameRange span;
    };
    const std::vector<Row> rows{
        {"the selection holding the press", FrameRange{10000, 20000}, {}, {10000, 20000}},
        {"the markers around it",
         std::nullopt,
         {Marker{Uuid::random(), 5000, QStringLiteral("A")},
          Marker{Uuid::random(), 30000, QStringLiteral("B")}},
         {5000, 30000}},
        {"the whole file", FrameRange{40000, 50000}, {}, {0, frames}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        undo.clear();
        model->setEnvelopes({});
        model->setMarkers(row.markers);
        model->setSelection(row.selection, allChannels(2));
        run({{Kind::press, 150, envelopeMid, Qt::ShiftModifier},
             {Kind::move, 150, yOfDB(2)},
             {Kind::move, 150, yOfDB(6)}});
        ASSERT_TRUE(view->dragReadout());
        EXPECT_EQ(view->dragReadout()->text,
                  QString::asprintf("+6.0 dB  (%.3f s)", static_cast<double>(row.span.length()) / rate));
        send({Kind::release, 150, yOfDB(6)});
        // Inside the span the curve stands 6 dB up; 10 ms outside it, it is back at 0.
        EXPECT_NEAR(master().gainDB(static_cast<double>(row.span.lower)), 6, 1e-9);
        EXPECT_NEAR(master().gainDB(static_cast<double>(row.span.upper - 1)), 6, 1e-9);
        if (row.span.lower > 0) {
            EXPECT_NEAR(master().gainDB(static_cast<double>(row.span.lower - 480)), 0, 1e-9);
        }
        EXPECT_EQ(undoNames(), std::vector<QString>{QStringLiteral("Adjust Gain Section")});
        undo.undo();
        EXPECT_TRUE(master().points().empty());
    }
    // A Shift+click that raises nothing leaves the envelope as it was, without a step.
    undo.clear();
    run({{Kind::press, 150, envelopeMid, Qt::ShiftModifier}, {Kind::release, 150, envelopeMid}});
    EXPECT_TRUE(master().points().empty());
    EXPECT_EQ(undo.count(), 0);
}

TEST_F(TimelineGestureTest, ShiftDragWithTheGridRaisesWholeBars) {
    // 240 bpm, one beat a bar: a bar is 12000 frames.
    model->setGrid(TempoGrid(240, 1, 0));
    model->setShowGrid(true);
    send({Kind::press, 10, envelopeMid, Qt::ShiftModifier});
    EXPECT_TRUE(master().points().empty()) << "bars take effect from the first move";
    send({Kind::move, 130, yOfDB(-6)});
    ASSERT_TRUE(view->barSpan());
    EXPECT_EQ(*view->barSpan(), (std::pair<int64_t, int64_t>{0, 1}));
    ASSERT_TRUE(view->dragReadout());
    EXPECT_EQ(view->dragReadout()->text, QStringLiteral("-6.0 dB  (bars 1–2 (2))"));
    send({Kind::move, 50, yOfDB(-6)});
    EXPECT_EQ(view->dragReadout()->text, QStringLiteral("-6.0 dB  (bar 1)"));
    send({Kind::move, 250, yOfDB(-6)});
    send({Kind::release, 250, yOfDB(-6)});
    EXPECT_FALSE(view->barSpan());
    EXPECT_NEAR(master().gainDB(0), -6, 1e-9);
    EXPECT_NEAR(master().gainDB(35999), -6, 1e-9);
    EXPECT_NEAR(master().gainDB(36000 + 480), 0, 1e-9);
    EXPECT_EQ(undoNames(), std::vector<QString>{QStringLiteral("Adjust Bars")});
}

TEST_F(TimelineGestureTest, ChipsPickTheTargetAndTheLaneEdgeResizes) {
    const auto& chips = view->cache().lastDrawing().targetChips;
    const auto second =
        std::find_if(chips.begin(), chips.end(), [](const auto& chip) { return chip.second == 1; });
    ASSERT_NE(second, chips.end());
    const QPointF centre = second->first.center();
    run({{Kind::press, centre.x(), centre.y()}, {Kind::release, centre.x(), centre.y()}});
    EXPECT_EQ(model->envelopeTarget(), 1);
    EXPECT_TRUE(model->envelopes().isEmpty());

    run({{Kind::press, 200, 171}, {Kind::move, 200, 150}});
    EXPECT_EQ(model->loudnessLaneHeight(), 151); // 130 + 21 points up from the press
    run({{Kind::move, 200, -900}, {Kind::release, 200, -900}});
    EXPECT_EQ(model->loudnessLaneHeight(), 600);
    EXPECT_EQ(undo.count(), 0);
}

TEST_F(TimelineGestureTest, AutoscrollGrowsTheSelectionWhileThePointerRests) {
    run({{Kind::press, 100, 50}, {Kind::move, 450, 50}});
    EXPECT_TRUE(view->isAutoscrolling());
    EXPECT_EQ(model->selection(), (FrameRange{10000, 45000}));
    // Each tick scrolls by 60 % of the 50-point overshoot and selects up to the right edge.
    view->autoscrollTick();
    EXPECT_EQ(model->scrollFrame(), 3000);
    EXPECT_EQ(model->selection(), (FrameRange{10000, 43000}));
    view->autoscrollTick();
    EXPECT_EQ(model->selection(), (FrameRange{10000, 46000}));
    send({Kind::move, 300, 50});
    EXPECT_FALSE(view->isAutoscrolling());
    send({Kind::move, -10, 50});
    EXPECT_TRUE(view->isAutoscrolling());
    view->autoscrollTick();
    EXPECT_EQ(model->scrollFrame(), 5400);
    send({Kind::release, -10, 50});
    EXPECT_FALSE(view->isAutoscrolling());
    EXPECT_EQ(undo.count(), 0);
}

struct KeyRow {
    const char* name;
    int key;
    Qt::KeyboardModifiers modifiers;
    QString text;
    Range expected;
    int64_t cursor;
    size_t markers;
};

TEST_F(TimelineGestureTest, KeysActOnTheModel) {
    const std::vector<KeyRow> rows{
        {"Return goes to the start", Qt::Key_Return, Qt::NoModifier, "\r", std::nullopt, 0, 0},
        {"Enter goes to the start", Qt::Key_Enter, Qt::KeypadModifier, "\r", std::nullopt, 0, 0},
        {"Escape clears", Qt::Key_Escape, Qt::NoModifier, {}, std::nullopt, 10000, 0},
        {"Right steps from the end by a 50th of the view",
         Qt::Key_Right,
         Qt::NoModifier,
         {},
         std::nullopt,
         20800,
         0},
        {"Left steps from the start", Qt::Key_Left, Qt::NoModifier, {}, std::nullopt, 9200, 0},
        {"Alt+Left steps by a point", Qt::Key_Left, Qt::AltModifier, {}, std::nullopt, 9900, 0},
        {"Shift+Right moves the end",
         Qt::Key_Right,
         Qt::ShiftModifier,
         {},
         FrameRange{10000, 20800},
         10000,
         0},
        {"Shift+Left moves the end back",
         Qt::Key_Left,
         Qt::ShiftModifier,
         {},
         FrameRange{10000, 19200},
         10000,
         0},
        {"M adds a marker", Qt::Key_M, Qt::NoModifier, "m", FrameRange{10000, 20000}, 10000, 1},
        {"Shift+M adds a marker", Qt::Key_M, Qt::ShiftModifier, "M", FrameRange{10000, 20000}, 10000, 1},
        {"Ctrl+M is not the timeline's",
         Qt::Key_M,
         Qt::ControlModifier,
         {},
         FrameRange{10000, 20000},
         10000,
         0},
        {"Alt+M is not the timeline's", Qt::Key_M, Qt::AltModifier, {}, FrameRange{10000, 20000}, 10000, 0},
        {"the key counts, not its text", Qt::Key_Q, Qt::NoModifier, "m", FrameRange{10000, 20000}, 10000, 0},
    };
    for (const KeyRow& row : rows) {
        SCOPED_TRACE(row.name);
        model->setMarkers({});
        model->setScrollFrame(5000);
        model->setSelection(FrameRange{10000, 20000}, allChannels(2));
        key(row.key, row.modifiers, row.text);
        EXPECT_EQ(model->selection(), row.expected);
        EXPECT_EQ(model->cursor(), row.cursor);
        EXPECT_EQ(model->markers().size(), row.markers);
    }
    // Shift+Left past the fixed start turns the range over, and the same edge goes on moving.
    model->setSelection(FrameRange{10000, 10500}, allChannels(2));
    key(Qt::Key_Left, Qt::ShiftModifier);
    EXPECT_EQ(model->selection(), (FrameRange{9700, 10000}));
    key(Qt::Key_Left, Qt::ShiftModifier);
    EXPECT_EQ(model->selection(), (FrameRange{8900, 10000}));

    // Backspace deletes the selection, as one step named as the menu's.
    model->setSelection(FrameRange{10000, 20000}, allChannels(2));
    undo.clear();
    key(Qt::Key_Backspace);
    EXPECT_EQ(model->content().frameCount(), frames - 10000);
    EXPECT_EQ(undoNames(), std::vector<QString>{QStringLiteral("Delete")});
}

TEST_F(TimelineGestureTest, WheelScrollsZoomsAboutThePointerAndStepsTheEnvelopeRange) {
    model->setScrollFrame(10000);
    wheel({}, {0, -120}, Qt::NoModifier); // a wheel line is 12 points
    EXPECT_EQ(model->scrollFrame(), 11200);
    wheel({0, -30}, {0, -90}, Qt::NoModifier); // a touchpad's points
    EXPECT_EQ(model->scrollFrame(), 14200);
    wheel({-10, 10}, {-30, 30}, Qt::NoModifier); // a tie goes to the horizontal
    EXPECT_EQ(model->scrollFrame(), 15200);
    EXPECT_EQ(model->framesPerPoint(), 100);

    // Ctrl zooms about the frame under the pointer; Alt too, with X11's transposed delta.
    const double under = model->scrollFrame() + 250 * model->framesPerPoint();
    wheel({}, {0, 120}, Qt::ControlModifier, {250, 100});
    EXPECT_NEAR(model->framesPerPoint(), 100 * std::exp(-0.08), 1e-9);
    EXPECT_NEAR(model->scrollFrame() + 250 * model->framesPerPoint(), under, 1e-6);
    wheel({}, {120, 0}, Qt::AltModifier, {250, 100});
    EXPECT_NEAR(model->framesPerPoint(), 100 * std::exp(-0.16), 1e-9);
    EXPECT_NEAR(model->scrollFrame() + 250 * model->framesPerPoint(), under, 1e-6);

    // Alt over the loudness lane steps the range once per notch, half notches adding up.
    const QPointF lane(200, 260);
    wheel({}, {120, 0}, Qt::AltModifier, lane);
    EXPECT_EQ(model->envelopeRangeDB(), 6);
    wheel({}, {60, 0}, Qt::AltModifier, lane);
    EXPECT_EQ(model->envelopeRangeDB(), 6);
    wheel({}, {60, 0}, Qt::AltModifier, lane);
    EXPECT_EQ(model->envelopeRangeDB(), 3);
    wheel({}, {120, 0}, Qt::AltModifier, lane);
    EXPECT_EQ(model->envelopeRangeDB(), 3) << "the list ends at 3";
    wheel({0, -3}, {}, Qt::AltModifier, lane);
    EXPECT_EQ(model->envelopeRangeDB(), 3) << "small touchpad deltas do nothing";
    wheel({0, -5}, {}, Qt::AltModifier, lane);
    EXPECT_EQ(model->envelopeRangeDB(), 6);
    model->setEnvelopeRangeDB(10); // not in the list: counts as 12
    wheel({}, {-120, 0}, Qt::AltModifier, lane);
    EXPECT_EQ(model->envelopeRangeDB(), 24);
    EXPECT_EQ(undo.count(), 0);
}

TEST_F(TimelineGestureTest, PinchZoomsAboutThePointer) {
    model->setScrollFrame(10000);
    const double under = model->scrollFrame() + 100 * model->framesPerPoint();
    QNativeGestureEvent pinch(Qt::ZoomNativeGesture, QPointingDevice::primaryPointingDevice(), 2,
                              QPointF(100, 80), QPointF(100, 80), view->mapToGlobal(QPointF(100, 80)), 0.25,
                              QPointF(), 1);
    QApplication::sendEvent(view.get(), &pinch);
    EXPECT_NEAR(model->framesPerPoint(), 80, 1e-9);
    EXPECT_NEAR(model->scrollFrame() + 100 * model->framesPerPoint(), under, 1e-6);
}

TEST_F(TimelineGestureTest, ContextMenuLeavesSelectionAndCursor) {
    model->setMarkers({Marker{Uuid::random(), 30000, QStringLiteral("Verse")}});
    model->setSelection(FrameRange{10000, 20000}, allChannels(2));
    const int64_t cursor = model->cursor();
    QMouseEvent right(QEvent::MouseButtonPress, QPointF(150, 50), view->mapToGlobal(QPointF(150, 50)),
                      Qt::RightButton, Qt::RightButton, Qt::NoModifier);
    QApplication::sendEvent(view.get(), &right);
    EXPECT_EQ(model->selection(), (FrameRange{10000, 20000}));
    EXPECT_EQ(model->cursor(), cursor);

    std::unique_ptr<QMenu> menu(view->contextMenuAt({310, 10}));
    QStringList titles;
    for (QAction* item : menu->actions())
        if (!item->isSeparator())
            titles << item->text();
    EXPECT_EQ(titles, (QStringList{"Cut", "Copy", "Paste", "Paste Mix", "Delete", "Trim to Selection",
                                   "Silence", "Fade In", "Fade Out", "Zoom to Selection", "Zoom to Fit",
                                   "Add Marker Here", "Remove Marker “Verse”"}));
    menu->actions()[menu->actions().size() - 2]->trigger(); // Add Marker Here, at x 310
    ASSERT_EQ(model->markers().size(), 2u);
    EXPECT_EQ(model->markers()[1].frame, 31000);
    menu->actions().back()->trigger();
    ASSERT_EQ(model->markers().size(), 1u);
    EXPECT_EQ(model->markers()[0].frame, 31000);

    model->setSelection(std::nullopt, std::nullopt);
    menu.reset(view->contextMenuAt({150, 50}));
    for (QAction* item : menu->actions())
        if (!item->isSeparator()) {
            const bool needsSelection =
                !QStringList{"Paste", "Paste Mix", "Zoom to Fit", "Add Marker Here"}.contains(item->text());
            EXPECT_EQ(item->isEnabled(), !needsSelection) << item->text().toStdString();
        }
}

TEST_F(TimelineGestureTest, WhileBusyPressesAndKeysOnlyTakeFocus) {
    model->setSelection(FrameRange{10000, 20000}, allChannels(2));
    model->setMarkers({Marker{Uuid::random(), 30000, QStringLiteral("A")}});
    model->beginExternalBusy(QStringLiteral("Working"), std::make_shared<ProgressToken>());
    view->clearFocus();
    const std::vector<std::vector<Step>> gestures{
        {{Kind::press, 50, 50}, {Kind::move, 80, 50}, {Kind::release, 80, 50}},
        {{Kind::press, 50, 10}, {Kind::move, 80, 10}, {Kind::release, 80, 10}},
        {{Kind::press, 301, 10}, {Kind::move, 320, 10}, {Kind::release, 320, 10}},
        {{Kind::doubleClick, 150, 50}, {Kind::release, 150, 50}},
        {{Kind::press, 100, yOfDB(6)}, {Kind::move, 200, yOfDB(3)}, {Kind::release, 200, yOfDB(3)}},
        {{Kind::press, 200, 171}, {Kind::move, 200, 120}, {Kind::release, 200, 120}},
    };
    for (const auto& gesture : gestures)
        run(gesture);
    for (const int code :
         {Qt::Key_Backspace, Qt::Key_Return, Qt::Key_Escape, Qt::Key_M, Qt::Key_Right, Qt::Key_Space})
        key(code);
    EXPECT_TRUE(view->hasFocus() || QApplication::focusWidget() == view.get());
    EXPECT_EQ(model->selection(), (FrameRange{10000, 20000}));
    EXPECT_EQ(model->cursor(), 10000);
    EXPECT_EQ(model->markers().size(), 1u);
    EXPECT_EQ(model->markers()[0].frame, 30000);
    EXPECT_TRUE(model->envelopes().isEmpty());
    EXPECT_EQ(model->loudnessLaneHeight(), 130);
    EXPECT_EQ(model->content().frameCount(), frames);
    EXPECT_FALSE(model->isPlaying());
    EXPECT_EQ(undo.count(), 0);
    model->endExternalBusy();
}

TEST_F(TimelineGestureTest, DropsOfLocalFilesAreHandedOn) {
    QSignalSpy dropped(view.get(), &TimelineView::filesDropped);
    QMimeData data;
    data.setUrls(
        {QUrl::fromLocalFile(QStringLiteral("/tmp/one.wav")), QUrl(QStringLiteral("https://x.invalid/a"))});
    QDragEnterEvent enter(QPoint(100, 100), Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton,
                          Qt::NoModifier);
    QApplication::sendEvent(view.get(), &enter);
    EXPECT_TRUE(enter.isAccepted());
    EXPECT_EQ(enter.dropAction(), Qt::CopyAction);
    QDropEvent drop(QPointF(100, 100), Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton,
                    Qt::NoModifier);
    QApplication::sendEvent(view.get(), &drop);
    ASSERT_EQ(dropped.count(), 1);
    EXPECT_EQ(dropped.at(0).at(0).toStringList(), QStringList{QStringLiteral("/tmp/one.wav")});

    QMimeData text;
    text.setText(QStringLiteral("words"));
    QDragEnterEvent refused(QPoint(100, 100), Qt::CopyAction, &text, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(view.get(), &refused);
    EXPECT_FALSE(refused.isAccepted());
}

TEST(TimelineReadoutTest, TextsOfTheEnvelopeDrags) {
    EXPECT_EQ(pointReadout(-3.04, 48000, TimeFormat::samples, rate),
              "-3.0 dB  @ " + string(TimeFormat::samples, 48000, rate));
    EXPECT_EQ(pointReadout(0, 24000, TimeFormat::seconds, rate),
              "+0.0 dB  @ " + string(TimeFormat::seconds, 24000, rate));
    // Under a minute in seconds with three decimals, from a minute on as h:m:s with two.
    EXPECT_EQ(sectionReadout(1.26, 2879, rate), QStringLiteral("+1.3 dB  (0.060 s)"));
    EXPECT_EQ(sectionReadout(-12, 59.9995 * rate, rate), QStringLiteral("-12.0 dB  (59.999 s)"));
    EXPECT_EQ(sectionReadout(6, 61.5 * rate, rate), QStringLiteral("+6.0 dB  (") + hms(61.5, 2) + ")");
    EXPECT_EQ(barsReadout(2, 4, 4), QStringLiteral("+2.0 dB  (bar 5)"));
    EXPECT_EQ(barsReadout(-0.04, 0, 9), QStringLiteral("-0.0 dB  (bars 1–10 (10))"));
}

// In the window: a dropped file opens in a window of its own, and the trace tells a dragged
// selection once, at the release.
TEST(TimelineInWindowTest, ADroppedFileOpensAndADragTracesItsSelectionOnce) {
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const std::string path = (folder.path() + QStringLiteral("/dropped.wav")).toStdString();
    AudioEncoder::write(AudioContent(testing::noisePlanes(1, 4800, 3), rate), std::nullopt, path,
                        EncodeSettings::defaults(ExportFormat::wav));
    QStringList lines;
    DocumentWindows windows(Trace([&lines](const QString& line) { lines << line; }));
    MainWindow* window =
        windows.adopt(AudioContent(testing::noisePlanes(2, 96000, 5), rate), QStringLiteral("Noise"));
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window));
    TimelineView& view = window->timeline();

    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(QString::fromStdString(path))});
    QDragEnterEvent enter(QPoint(100, 100), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&view, &enter);
    QDropEvent drop(QPointF(100, 100), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&view, &drop);
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return lines.filter(QStringLiteral("file opened")).size() == 1; }, 10000))
        << lines.join(QLatin1Char('\n')).toStdString();
    EXPECT_EQ(windows.windows().size(), 2u);

    EditorModel& model = window->document().model();
    lines.clear();
    const auto mouse = [&view](QEvent::Type type, double x, Qt::MouseButtons buttons) {
        QMouseEvent event(type, QPointF(x, 60), view.mapToGlobal(QPointF(x, 60)),
                          type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton, buttons, Qt::NoModifier);
        QApplication::sendEvent(&view, &event);
    };
    mouse(QEvent::MouseButtonPress, 100, Qt::LeftButton);
    for (const double x : {120.0, 150.0, 170.0, 200.0})
        mouse(QEvent::MouseMove, x, Qt::LeftButton);
    EXPECT_TRUE(lines.filter(QStringLiteral("selection")).isEmpty());
    mouse(QEvent::MouseButtonRelease, 200, Qt::NoButton);
    ASSERT_TRUE(model.selection());
    EXPECT_EQ(
        lines.filter(QStringLiteral("selection")),
        QStringList{
            QStringLiteral("selection %1..%2").arg(model.selection()->lower).arg(model.selection()->upper)});
    // A command's change is traced at once.
    model.selectAll();
    EXPECT_EQ(lines.last(), QStringLiteral("selection 0..96000"));
    for (MainWindow* each : windows.windows()) {
        each->document().undoStack().setClean();
        each->close();
    }
}

} // namespace
} // namespace harlune
