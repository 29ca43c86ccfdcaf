// Long operations through `process` and the busy state around them.
#include "base/HarluneError.h"
#include "editor/EditorTestSupport.h"

#include <QSignalSpy>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace harlune {
namespace {

/// Worker side: polls a flag the main thread sets, giving up after a few seconds so that a
/// broken test fails instead of hanging.
bool waitFor(const std::atomic<bool>& flag) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!flag.load()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

using Token = std::shared_ptr<ProgressToken>;

class EditorModelProcessTest : public testing::ModelTest {
protected:
    /// Starts work named `name` that returns its content unchanged once `release` is set.
    void startHeld(const QString& name) {
        model->process(name, [this](AudioContent content, Token) {
            waitFor(release);
            return content;
        });
    }
    std::atomic<bool> release{false};
};

TEST_F(EditorModelProcessTest, SuccessCommitsOneUndoStepWithWhatTheProducersMake) {
    model->setSelection(FrameRange{100, 200});
    const EnvelopeSet moved(GainEnvelope({EnvelopePoint(300, -6)}));
    model->process(
        "Trim",
        [](AudioContent content, Token token) {
            token->setFraction(1);
            return content.slice({0, 600});
        },
        std::optional<FrameRange>(FrameRange{0, 50}),
        [](const AudioContent& result) {
            return std::vector<Marker>{Marker{Uuid::random(), result.frameCount() / 60, "From result"}};
        },
        [&](const AudioContent&) { return moved; });
    ASSERT_TRUE(model->busy());
    EXPECT_EQ(model->busy()->title, "Trim");
    EXPECT_EQ(model->content().frameCount(), 1000); // the commit comes later, on the main thread

    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(model->content().frameCount(), 600);
    EXPECT_EQ(model->selection(), (FrameRange{0, 50}));
    ASSERT_EQ(model->markers().size(), 1u);
    EXPECT_EQ(model->markers()[0].frame, 10);
    EXPECT_EQ(model->envelopes(), moved);
    EXPECT_EQ(probe->envelopes, moved);
    EXPECT_EQ(stack.undoText(), "Trim");
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(model->busyTimer(), nullptr);

    stack.undo();
    EXPECT_EQ(model->content().frameCount(), 1000);
    EXPECT_EQ(model->selection(), (FrameRange{100, 200}));
    EXPECT_TRUE(model->markers().empty());
    EXPECT_EQ(model->envelopes(), EnvelopeSet());
}

TEST_F(EditorModelProcessTest, SelectionNotGivenStaysAndAChannelChangeActivatesAll) {
    model->setSelection(FrameRange{100, 200});
    model->setActiveChannels({1});
    model->process("Mix to Mono",
                   [](AudioContent content, Token) { return testing::rampContent(content.frameCount(), 1); });
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(model->selection(), (FrameRange{100, 200}));
    EXPECT_EQ(model->activeChannels(), ChannelSet{0});

    model->process(
        "Copy", [](AudioContent content, Token) { return content; }, std::optional<FrameRange>());
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_FALSE(model->selection()); // given as absent: cleared
}

TEST_F(EditorModelProcessTest, WorkSeesOnlyItsCopyAndTheCommitWritesOverTheDocument) {
    model->process("Slow", [&](AudioContent content, Token) {
        waitFor(release);
        content.deleteRange({0, 10});
        return content;
    });
    model->setCursor(123);
    release = true;
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(model->content().frameCount(), 990);
    stack.undo();
    EXPECT_EQ(model->cursor(), 123);
}

TEST_F(EditorModelProcessTest, CancelledWorkCommitsAndReportsNothing) {
    // Cancelled in the last moment, the work ran to the end: its result is thrown away all the same.
    // Cancelled work that throws, whatever it throws, is not an error either.
    const std::function<AudioContent(AudioContent)> endings[] = {
        [](AudioContent content) {
            return content.slice({0, 10});
        },
        [](AudioContent) -> AudioContent { throw HarluneError::cancelled(); },
        [](AudioContent) -> AudioContent { throw HarluneError::decodeFailed("stopped half way"); },
    };
    for (const auto& ending : endings) {
        std::atomic<bool> cancelled{false};
        model->process("Normalize", [&](AudioContent content, Token) {
            waitFor(cancelled);
            return ending(content);
        });
        ASSERT_TRUE(model->busy());
        model->busy()->token->cancel();
        cancelled = true;
        ASSERT_TRUE(waitUntilIdle());
    }
    // A cancellation thrown without the flag is silent too.
    model->process("Apply", [](AudioContent, Token) -> AudioContent { throw HarluneError::cancelled(); });
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(model->content().frameCount(), 1000);
    EXPECT_EQ(stack.count(), 0);
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(alerts, 0);
}

TEST_F(EditorModelProcessTest, FailuresGoToPresentErrorWithNoUndoStep) {
    const HarluneError failure = HarluneError::decodeFailed("bad header");
    model->process("Apply", [&](AudioContent, Token) -> AudioContent { throw failure; });
    ASSERT_TRUE(waitUntilIdle());
    model->process("Apply",
                   [](AudioContent, Token) -> AudioContent { throw std::runtime_error("out of range"); });
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(errors, (std::vector<std::string>{failure.what(), "out of range"}));
    EXPECT_EQ(stack.count(), 0);
    EXPECT_EQ(model->content().frameCount(), 1000);

    model->setPresentError({}); // no presenter: the error is dropped
    model->process("Apply", [&](AudioContent, Token) -> AudioContent { throw failure; });
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(errors.size(), 2u);
}

TEST_F(EditorModelProcessTest, ASecondProcessWhileBusyIsRefusedWithTheAlert) {
    std::atomic<int> secondRuns{0};
    startHeld("First");
    model->process("Second", [&](AudioContent content, Token) {
        ++secondRuns;
        return content;
    });
    EXPECT_EQ(alerts, 1);
    EXPECT_EQ(model->busy()->title, "First");
    release = true;
    ASSERT_TRUE(waitUntilIdle());
    testing::drainJobs();
    EXPECT_EQ(secondRuns.load(), 0);
    EXPECT_EQ(stack.count(), 1);
    EXPECT_EQ(stack.undoText(), "First");
}

TEST_F(EditorModelProcessTest, TheBusyTimerCopiesItsOwnTokensFraction) {
    model->process("Render", [&](AudioContent content, Token token) {
        token->setFraction(0.25);
        waitFor(release);
        return content;
    });
    ASSERT_TRUE(model->busyTimer());
    EXPECT_EQ(model->busyTimer()->interval(), 50);
    EXPECT_TRUE(QTest::qWaitFor([&] { return model->busy() && model->busy()->fraction == 0.25; }, 5000));
    release = true;
    ASSERT_TRUE(waitUntilIdle());

    // A newer busy state takes over: the older token's progress no longer shows.
    auto first = std::make_shared<ProgressToken>();
    model->beginExternalBusy("Opening", first);
    const Uuid firstID = model->busy()->id;
    auto second = std::make_shared<ProgressToken>();
    model->beginExternalBusy("Pasting", second);
    EXPECT_NE(model->busy()->id, firstID);
    first->setFraction(0.9);
    second->setFraction(0.4);
    EXPECT_TRUE(QTest::qWaitFor([&] { return model->busy()->fraction == 0.4; }, 5000));
    QSignalSpy spy(model.get(), &EditorModel::busyChanged);
    QTest::qWait(150); // ticks that find the same fraction notify nobody
    EXPECT_EQ(spy.count(), 0);
    model->endExternalBusy();
    EXPECT_FALSE(model->busy());
    EXPECT_EQ(model->busyTimer(), nullptr);
}

TEST_F(EditorModelProcessTest, AClosedModelDropsTheResult) {
    startHeld("Slow");
    model.reset();
    release = true;
    testing::drainJobs(); // delivers the queued commit to nobody
    EXPECT_EQ(stack.count(), 0);
    EXPECT_TRUE(errors.empty());
}

} // namespace
} // namespace harlune
