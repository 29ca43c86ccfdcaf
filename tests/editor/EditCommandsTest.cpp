#include "base/HarluneError.h"
#include "core/AudioBlock.h"
#include "editor/EditorModel.h"
#include "editor/EditorTestSupport.h"

#include <QCoreApplication>
#include <QSignalSpy>
#include <QTest>
#include <QThreadPool>
#include <QUndoStack>
#include <cmath>
#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::Probe;

Marker markerAt(int64_t frame, const char* name = "M") {
    Marker marker;
    marker.frame = frame;
    marker.name = QString::fromLatin1(name);
    return marker;
}

// The master curve's points as frames and gains (edits may add points with fresh identities).
std::vector<std::pair<int64_t, double>> curve(const EnvelopeSet& set) {
    std::vector<std::pair<int64_t, double>> points;
    for (const EnvelopePoint& point : set.master.points())
        points.emplace_back(point.frame, point.gainDB);
    return points;
}

std::vector<int64_t> framesOf(const std::vector<Marker>& markers) {
    std::vector<int64_t> frames;
    for (const Marker& marker : markers)
        frames.push_back(marker.frame);
    return frames;
}

/// A sine of `hz` at `rate`, one channel per entry of `gains`.
AudioContent sine(int64_t frames, double rate, double hz, std::vector<float> gains) {
    std::vector<std::vector<float>> planes;
    for (const float gain : gains) {
        std::vector<float> plane(static_cast<size_t>(frames));
        for (int64_t i = 0; i < frames; ++i)
            plane[static_cast<size_t>(i)] =
                gain * static_cast<float>(std::sin(2 * M_PI * hz * static_cast<double>(i) / rate));
        planes.push_back(std::move(plane));
    }
    return AudioContent(std::move(planes), rate);
}

class EditCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::clearPreferences();
        use(testing::rampContent(1000, 2));
    }

    void TearDown() override {
        QThreadPool::globalInstance()->waitForDone(5000);
        QCoreApplication::processEvents();
    }

    void use(AudioContent content, std::shared_ptr<AudioClipboard> shared = nullptr) {
        EditorCollaborators collaborators;
        collaborators.player = std::make_unique<testing::ProbePlayer>(probe);
        collaborators.clipboard = std::move(shared);
        model = std::make_unique<EditorModel>(std::move(content), std::nullopt, std::move(collaborators));
        model->setUndoManager(&stack);
        model->setPresentError([this](const std::exception& error) { errors.emplace_back(error.what()); });
    }

    bool waitUntilIdle() {
        return QTest::qWaitFor([this] { return !model->busy(); }, 10000);
    }

    std::shared_ptr<Probe> probe = std::make_shared<Probe>();
    QUndoStack stack;
    std::unique_ptr<EditorModel> model;
    std::vector<std::string> errors;
};

TEST_F(EditCommandsTest, CopyTakesTheSelectionAndOnlyTheActiveChannels) {
    model->copy();
    EXPECT_FALSE(model->clipboard().content());
    EXPECT_EQ(model->clipboard().changeCount(), 0);

    model->setSelection(FrameRange{100, 300}, std::nullopt);
    model->copy();
    ASSERT_TRUE(model->clipboard().content());
    EXPECT_EQ(model->clipboard().changeCount(), 1);
    EXPECT_EQ(model->clipboard().content()->channelCount(), 2);
    EXPECT_EQ(model->clipboard().content()->frameCount(), 200);
    // Shared, not copied: the clip is a window on the document's block.
    EXPECT_EQ(model->clipboard().content()->segments().front().block,
              model->content().segments().front().block);
    EXPECT_EQ(stack.count(), 0);

    model->setSelection(FrameRange{100, 300}, ChannelSet{1});
    model->copy();
    const AudioContent& clip = *model->clipboard().content();
    EXPECT_EQ(model->clipboard().changeCount(), 2);
    ASSERT_EQ(clip.channelCount(), 1);
    EXPECT_EQ(clip.sample(0, 0), model->content().sample(1, 100));
    EXPECT_EQ(clip.sample(0, 199), model->content().sample(1, 299));
}

TEST_F(EditCommandsTest, TheClipboardIsSharedBetweenModels) {
    auto shared = std::make_shared<AudioClipboard>();
    use(testing::rampContent(1000, 2), shared);
    model->setSelection(FrameRange{0, 10}, std::nullopt);
    model->copy();
    const AudioBlockRef copied = model->content().segments().front().block;
    model.reset(); // the clip outlives its document

    use(testing::rampContent(50, 2), shared);
    model->paste();
    EXPECT_EQ(model->content().frameCount(), 60);
    EXPECT_EQ(model->selection(), (FrameRange{0, 10}));
    EXPECT_EQ(model->content().segments().front().block, copied);

    // A model given no clipboard has its own.
    EditorModel alone(testing::rampContent(10, 2), std::nullopt);
    EXPECT_FALSE(alone.clipboard().content());
}

TEST_F(EditCommandsTest, DeleteRemovesTheSelectionAndMovesMarkers) {
    model->setMarkers({markerAt(50), markerAt(100), markerAt(150), markerAt(200), markerAt(500)});
    model->setSelection(FrameRange{100, 200}, std::nullopt);
    const float after = model->content().sample(0, 200);
    model->deleteNamed(QStringLiteral("Cut"));
    EXPECT_EQ(model->content().frameCount(), 900);
    EXPECT_EQ(model->content().sample(0, 100), after);
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{50, 100, 400}));
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(model->cursor(), 100);
    EXPECT_EQ(stack.undoText(), "Cut");

    stack.undo();
    EXPECT_EQ(model->content().frameCount(), 1000);
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{50, 100, 150, 200, 500}));
    EXPECT_EQ(model->selection(), (FrameRange{100, 200}));

    model->selectNone();
    const int steps = stack.count();
    model->deleteNamed(QStringLiteral("Delete"));
    EXPECT_EQ(stack.count(), steps);
}

TEST_F(EditCommandsTest, DeleteInOneOfTwoChannelsSilencesItAndKeepsTheLength) {
    model->setMarkers({markerAt(150), markerAt(400)});
    model->setSelection(FrameRange{100, 200}, ChannelSet{0});
    const float other = model->content().sample(1, 150);
    model->deleteNamed(QStringLiteral("Delete"));
    EXPECT_EQ(model->content().frameCount(), 1000);
    for (int64_t i = 100; i < 200; ++i)
        ASSERT_EQ(model->content().sample(0, i), 0.0f);
    EXPECT_NE(model->content().sample(0, 99), 0.0f);
    EXPECT_NE(model->content().sample(0, 201), 0.0f);
    EXPECT_EQ(model->content().sample(1, 150), other);
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{150, 400}));
    EXPECT_EQ(model->selection(), (FrameRange{100, 200}));
    EXPECT_EQ(model->activeChannels(), ChannelSet{0});
    EXPECT_EQ(stack.undoText(), "Delete");
}

TEST_F(EditCommandsTest, DeletingEverythingLeavesEmptyContent) {
    model->setMarkers({markerAt(0), markerAt(999)});
    model->setCursor(500);
    model->selectAll();
    model->deleteNamed(QStringLiteral("Delete"));
    EXPECT_TRUE(model->content().isEmpty());
    EXPECT_EQ(model->cursor(), 0);
    EXPECT_FALSE(model->selection());
    EXPECT_TRUE(model->markers().empty());
}

TEST_F(EditCommandsTest, TrimKeepsTheSelectionAndTheMarkersInIt) {
    model->setMarkers({markerAt(50), markerAt(100), markerAt(199), markerAt(200)});
    model->setSelection(FrameRange{100, 200}, ChannelSet{1}); // a trim ignores the restriction
    const float first = model->content().sample(0, 100);
    model->trimToSelection();
    EXPECT_EQ(model->content().frameCount(), 100);
    EXPECT_EQ(model->content().sample(0, 0), first);
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{0, 99}));
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(model->cursor(), 0);
    EXPECT_EQ(model->activeChannels(), ChannelSet{1});
    EXPECT_EQ(stack.undoText(), "Trim");
}

TEST_F(EditCommandsTest, TrimAndDeleteCarryTheEnvelopesAlong) {
    const EnvelopeSet envelopes(
        GainEnvelope({EnvelopePoint(100, -6), EnvelopePoint(250, -3), EnvelopePoint(600, 0)}));
    model->setEnvelopes(envelopes);
    model->setSelection(FrameRange{200, 300}, std::nullopt);
    model->deleteNamed(QStringLiteral("Delete"));
    EXPECT_EQ(curve(model->envelopes()), curve(envelopes.adjusted({200, 300}, 0)));
    EXPECT_EQ(model->envelopes().master.points().back().frame, 500);
    stack.undo();
    model->trimToSelection();
    EXPECT_EQ(curve(model->envelopes()), curve(envelopes.adjusted({300, 1000}, 0).adjusted({0, 200}, 0)));
    EXPECT_EQ(model->envelopes().master.points().front().frame, 50); // the point at 250
}

TEST_F(EditCommandsTest, PasteReplacesTheSelectionAndSelectsThePastedAudio) {
    model->setSelection(FrameRange{0, 50}, std::nullopt);
    model->copy();
    model->setMarkers({markerAt(10), markerAt(120), markerAt(300)});
    model->setSelection(FrameRange{100, 200}, ChannelSet{0}); // a paste replaces all channels
    model->paste();
    EXPECT_EQ(model->content().frameCount(), 950);
    EXPECT_EQ(model->selection(), (FrameRange{100, 150}));
    EXPECT_EQ(model->content().sample(1, 100), model->content().sample(1, 0));
    // Inside the replaced range a marker keeps its frame, even past the pasted audio.
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{10, 120, 250}));
    EXPECT_EQ(stack.undoText(), "Paste");

    // Without a selection it inserts at the cursor.
    model->selectNone();
    model->setCursor(950);
    model->paste();
    EXPECT_EQ(model->content().frameCount(), 1000);
    EXPECT_EQ(model->selection(), (FrameRange{950, 1000}));
}

TEST_F(EditCommandsTest, PasteWithNothingOnTheClipboardDoesNothing) {
    model->paste();
    model->pasteMix();
    EXPECT_EQ(stack.count(), 0);
    model->clipboard().setContent(AudioContent(2, 48000));
    model->paste();
    model->pasteMix();
    EXPECT_EQ(stack.count(), 0);
}

TEST_F(EditCommandsTest, PasteIntoAnEmptyDocumentAdoptsTheClip) {
    use(AudioContent(2, 48000), nullptr);
    model->clipboard().setContent(testing::rampContent(44100, 1, 44100));
    model->setViewWidth(441);
    model->pasteMix();
    EXPECT_EQ(stack.count(), 0); // nothing to mix into

    model->paste();
    EXPECT_EQ(model->content().sampleRate(), 44100);
    EXPECT_EQ(model->content().channelCount(), 1);
    EXPECT_EQ(model->content().frameCount(), 44100);
    EXPECT_EQ(model->selection(), (FrameRange{0, 44100}));
    EXPECT_EQ(model->activeChannels(), ChannelSet{0});
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 100); // fitted
    EXPECT_FALSE(model->busy());
    stack.undo();
    EXPECT_TRUE(model->content().isEmpty());
    EXPECT_EQ(model->content().channelCount(), 2);
}

TEST_F(EditCommandsTest, AMonoClipIsSpreadOverAStereoDocument) {
    model->clipboard().setContent(AudioContent({{0.25f, 0.5f, 0.75f}}, 48000));
    model->setCursor(10);
    model->paste();
    EXPECT_EQ(model->content().frameCount(), 1003);
    for (int c = 0; c < 2; ++c) {
        EXPECT_EQ(model->content().sample(c, 10), 0.25f);
        EXPECT_EQ(model->content().sample(c, 12), 0.75f);
    }
    // And a stereo clip into a mono document is the mean of its channels.
    use(testing::rampContent(100, 1));
    model->clipboard().setContent(AudioContent({{0.5f}, {0.25f}}, 48000));
    model->paste();
    EXPECT_EQ(model->content().sample(0, 0), 0.375f);
}

TEST_F(EditCommandsTest, PasteMixAddsAndGrowsAtTheEnd) {
    model->clipboard().setContent(AudioContent({{0.5f, 0.5f, 0.5f, 0.5f}, {1, 1, 1, 1}}, 48000));
    model->setMarkers({markerAt(999)});
    const float before = model->content().sample(0, 998);
    model->setCursor(998);
    model->pasteMix();
    EXPECT_EQ(model->content().frameCount(), 1002);
    EXPECT_EQ(model->content().sample(0, 998), before + 0.5f);
    EXPECT_EQ(model->content().sample(1, 1001), 1.0f);
    EXPECT_EQ(model->selection(), (FrameRange{998, 1002}));
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{999}));
    EXPECT_EQ(stack.undoText(), "Paste Mix");
    stack.undo();
    EXPECT_EQ(model->content().frameCount(), 1000);
    EXPECT_EQ(model->content().sample(0, 998), before);
}

TEST_F(EditCommandsTest, InsertSilence) {
    model->insertSilence(0);
    model->insertSilence(-5);
    EXPECT_EQ(stack.count(), 0);

    model->setMarkers({markerAt(99), markerAt(100), markerAt(101)});
    model->setCursor(100);
    model->insertSilence(10);
    EXPECT_EQ(model->content().frameCount(), 1010);
    EXPECT_EQ(model->content().sample(0, 100), 0.0f);
    EXPECT_EQ(model->content().sample(1, 109), 0.0f);
    EXPECT_EQ(model->selection(), (FrameRange{100, 110}));
    EXPECT_EQ(model->cursor(), 100);
    // A marker exactly at the insertion point moves on with the later audio.
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{99, 110, 111}));
    EXPECT_EQ(stack.undoText(), "Insert Silence");
}

TEST_F(EditCommandsTest, MarkersAfterReplacingKeepOrderAndIdentity) {
    const std::vector<Marker> list = {markerAt(5), markerAt(10), markerAt(15), markerAt(20), markerAt(25)};
    model->setMarkers(list);
    auto moved = model->markers({10, 20}, 3);
    ASSERT_EQ(moved.size(), 5u);
    EXPECT_EQ(framesOf(moved), (std::vector<int64_t>{5, 10, 15, 13, 18}));
    for (size_t i = 0; i < moved.size(); ++i)
        EXPECT_EQ(moved[i].id, list[i].id);
    EXPECT_EQ(framesOf(model->markers({10, 20}, 0)), (std::vector<int64_t>{5, 10, 15}));
    EXPECT_EQ(framesOf(model->markers({10, 10}, 4)), (std::vector<int64_t>{5, 14, 19, 24, 29}));
}

TEST_F(EditCommandsTest, AClipOfAnotherRateIsConvertedInTheBackgroundAsOnePaste) {
    use(sine(44100, 44100, 1000, {0.5f, 0.5f}));
    model->clipboard().setContent(sine(48000, 48000, 1000, {0.5f, 0.5f}));
    model->setMarkers({markerAt(20000)});
    model->setCursor(10000);
    QSignalSpy busySpy(model.get(), &EditorModel::busyChanged);
    model->paste();
    ASSERT_TRUE(model->busy());
    EXPECT_EQ(model->busy()->title, "Converting clipboard sample rate");
    EXPECT_EQ(stack.count(), 0);
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_GE(busySpy.count(), 2); // shown, then cleared

    EXPECT_EQ(stack.count(), 1);
    EXPECT_EQ(stack.undoText(), "Paste");
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(model->content().frameCount(), 88200);
    EXPECT_EQ(model->selection(), (FrameRange{10000, 54100}));
    EXPECT_EQ(framesOf(model->markers()), (std::vector<int64_t>{64100}));
    // Still a 1 kHz tone at the document's rate: 44.1 frames per cycle.
    const PeakSummary middle = model->content().peaks(0, {30000, 34410});
    EXPECT_NEAR(middle.max, 0.5f, 0.01f);
    EXPECT_NEAR(middle.rms(), 0.5f / std::sqrt(2.0f), 0.005f);
    double phase = 0;
    for (int64_t i = 30000; i < 34410; ++i) {
        const double expected = 0.5 * std::sin(2 * M_PI * 1000 * static_cast<double>(i - 10000) / 44100);
        phase = std::max(phase, std::abs(expected - model->content().sample(1, i)));
    }
    EXPECT_LT(phase, 0.01);

    stack.undo();
    EXPECT_EQ(model->content().frameCount(), 44100);
}

TEST_F(EditCommandsTest, CancelledConversionPastesNothing) {
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
}

TEST_F(EditCommandsTest, AConversionWhoseModelIsGoneCommitsNothing) {
    use(testing::rampContent(1000, 2, 44100));
    model->clipboard().setContent(AudioContent::silence(4800, 2, 48000));
    model->paste();
    model.reset();
    QThreadPool::globalInstance()->waitForDone(5000);
    QCoreApplication::processEvents();
    EXPECT_EQ(stack.count(), 0);
}

} // namespace
} // namespace harlune
