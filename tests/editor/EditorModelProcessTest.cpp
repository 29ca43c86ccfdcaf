#include "base/HarluneError.h"
#include "editor/EditorModel.h"
#include "editor/EditorTestSupport.h"

#include <QCoreApplication>
#include <QSignalSpy>
#include <QTest>
#include <QThreadPool>
#include <QTimer>
#include <QUndoStack>
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace harlune {
namespace {

using testing::Probe;

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

class EditorModelProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::clearPreferences();
        model = testing::probedModel(testing::rampContent(1000, 2), probe);
        model->setUndoManager(&stack);
        model->setPresentError([this](const std::exception& error) { errors.emplace_back(error.what()); });
        model->setAlertSound([this] { ++alerts; });
    }

    void TearDown() override {
        // No job may outlive the test's flags.
        QThreadPool::globalInstance()->waitForDone(5000);
        QCoreApplication::processEvents();
    }

    bool waitUntilIdle() {
        return QTest::qWaitFor([this] { return !model->busy(); }, 5000);
    }

    std::shared_ptr<Probe> probe = std::make_shared<Probe>();
    QUndoStack stack;
    std::unique_ptr<EditorModel> model;
    std::vector<std::string> errors;
    int alerts = 0;
};

TEST_F(EditorModelProcessTest, SuccessCommitsOneUndoStep) {
    model->setSelection(FrameRange{100, 200});
    int markerCalls = 0;
    model->process(
        "Trim",
        [](AudioContent content, std::shared_ptr<ProgressToken> token) {
            token->setFraction(1);
            return content.slice({0, 600});
        },
        std::optional<FrameRange>(FrameRange{0, 50}),
        [&](const AudioContent& result) {
            ++markerCalls;
            EXPECT_EQ(result.frameCount(), 600);
            return std::vector<Marker>{Marker{Uuid::random(), 10, "From result"}};
        });
    ASSERT_TRUE(model->busy());
    EXPECT_EQ(model->busy()->title, "Trim");
    EXPECT_EQ(model->content().frameCount(), 1000); // the commit comes later, on the main thread

    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(model->content().frameCount(), 600);
    EXPECT_EQ(model->selection(), (FrameRange{0, 50}));
    EXPECT_EQ(markerCalls, 1);
    ASSERT_EQ(model->markers().size(), 1u);
    EXPECT_EQ(model->markers()[0].name, "From result");
    EXPECT_EQ(stack.count(), 1);
    EXPECT_EQ(stack.undoText(), "Trim");
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(model->busyTimer(), nullptr);

    stack.undo();
    EXPECT_EQ(model->content().frameCount(), 1000);
    EXPECT_EQ(model->selection(), (FrameRange{100, 200}));
    EXPECT_TRUE(model->markers().empty());
}

TEST_F(EditorModelProcessTest, SelectionNotGivenStaysAndAChannelChangeActivatesAll) {
    model->setSelection(FrameRange{100, 200});
    model->setActiveChannels({1});
    model->process("Mix to Mono", [](AudioContent content, std::shared_ptr<ProgressToken>) {
        return testing::rampContent(content.frameCount(), 1);
    });
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(model->content().channelCount(), 1);
    EXPECT_EQ(model->selection(), (FrameRange{100, 200}));
    EXPECT_EQ(model->activeChannels(), (ChannelSet{0}));

    // Given as absent: the selection is cleared.
    model->process(
        "Copy", [](AudioContent content, std::shared_ptr<ProgressToken>) { return content; },
        std::optional<FrameRange>());
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(stack.count(), 2);
}

TEST_F(EditorModelProcessTest, EnvelopeProducerMakesTheNewSet) {
    const EnvelopeSet moved(GainEnvelope({EnvelopePoint(300, -6)}));
    model->process(
        "Cut",
        [](AudioContent content, std::shared_ptr<ProgressToken>) {
            return content.slice({0, 500});
        },
        std::nullopt, {},
        [&](const AudioContent& result) {
            EXPECT_EQ(result.frameCount(), 500);
            return moved;
        });
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(model->envelopes(), moved);
    EXPECT_EQ(probe->envelopes, moved);
    stack.undo();
    EXPECT_EQ(model->envelopes(), EnvelopeSet());
}

TEST_F(EditorModelProcessTest, WorkSeesOnlyItsCopy) {
    std::atomic<bool> release{false};
    model->process("Slow", [&](AudioContent content, std::shared_ptr<ProgressToken>) {
        waitFor(release);
        content.deleteRange({0, 10});
        return content;
    });
    // The document changes while the job runs; the commit writes over it.
    model->setCursor(123);
    release = true;
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(model->content().frameCount(), 990);
    stack.undo();
    EXPECT_EQ(model->cursor(), 123);
}

TEST_F(EditorModelProcessTest, CancelInTheLastMomentCommitsNothing) {
    std::atomic<bool> cancelled{false};
    model->process("Normalize", [&](AudioContent content, std::shared_ptr<ProgressToken> token) {
        waitFor(cancelled);
        // Ran to the end regardless of the flag: the result must still be thrown away.
        token->setFraction(1);
        return content.slice({0, 10});
    });
    ASSERT_TRUE(model->busy());
    model->busy()->token->cancel();
    cancelled = true;
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(model->content().frameCount(), 1000);
    EXPECT_EQ(stack.count(), 0);
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(alerts, 0);
}

TEST_F(EditorModelProcessTest, CancelledWorkThatThrowsReportsNothing) {
    model->process("A", [](AudioContent, std::shared_ptr<ProgressToken>) -> AudioContent {
        throw HarluneError::cancelled();
    });
    ASSERT_TRUE(waitUntilIdle());

    std::atomic<bool> cancelled{false};
    model->process("B", [&](AudioContent, std::shared_ptr<ProgressToken>) -> AudioContent {
        waitFor(cancelled);
        throw HarluneError::decodeFailed("stopped half way");
    });
    model->busy()->token->cancel();
    cancelled = true;
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(stack.count(), 0);
}

TEST_F(EditorModelProcessTest, ErrorGoesToPresentErrorWithNoUndoStep) {
    const HarluneError failure = HarluneError::decodeFailed("bad header");
    model->process("Apply",
                   [&](AudioContent, std::shared_ptr<ProgressToken>) -> AudioContent { throw failure; });
    ASSERT_TRUE(waitUntilIdle());
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], failure.what());
    EXPECT_EQ(stack.count(), 0);
    EXPECT_EQ(model->content().frameCount(), 1000);

    // Not a HarluneError: still shown.
    model->process("Apply", [](AudioContent, std::shared_ptr<ProgressToken>) -> AudioContent {
        throw std::runtime_error("out of range");
    });
    ASSERT_TRUE(waitUntilIdle());
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[1], "out of range");

    // No presenter: the error is dropped.
    model->setPresentError({});
    model->process("Apply",
                   [&](AudioContent, std::shared_ptr<ProgressToken>) -> AudioContent { throw failure; });
    ASSERT_TRUE(waitUntilIdle());
    EXPECT_EQ(errors.size(), 2u);
}

TEST_F(EditorModelProcessTest, SecondProcessWhileBusyIsRefusedWithTheAlert) {
    std::atomic<bool> release{false};
    std::atomic<int> secondRuns{0};
    model->process("First", [&](AudioContent content, std::shared_ptr<ProgressToken>) {
        waitFor(release);
        return content;
    });
    model->process("Second", [&](AudioContent content, std::shared_ptr<ProgressToken>) {
        ++secondRuns;
        return content;
    });
    EXPECT_EQ(alerts, 1);
    EXPECT_EQ(model->busy()->title, "First");
    release = true;
    ASSERT_TRUE(waitUntilIdle());
    QThreadPool::globalInstance()->waitForDone(5000);
    EXPECT_EQ(secondRuns.load(), 0);
    EXPECT_EQ(stack.count(), 1);
    EXPECT_EQ(stack.undoText(), "First");
}

TEST_F(EditorModelProcessTest, BusyTimerCopiesTheTokensFraction) {
    std::atomic<bool> release{false};
    model->process("Render", [&](AudioContent content, std::shared_ptr<ProgressToken> token) {
        token->setFraction(0.25);
        waitFor(release);
        return content;
    });
    QSignalSpy spy(model.get(), &EditorModel::busyChanged);
    ASSERT_TRUE(model->busyTimer());
    EXPECT_EQ(model->busyTimer()->interval(), 50);
    EXPECT_TRUE(QTest::qWaitFor([&] { return model->busy() && model->busy()->fraction == 0.25; }, 5000));
    const auto changes = spy.count();
    EXPECT_GE(changes, 1);
    // Ticks that find the same fraction notify nobody.
    QTest::qWait(150);
    EXPECT_EQ(spy.count(), changes);

    release = true;
    ASSERT_TRUE(waitUntilIdle());
}

TEST_F(EditorModelProcessTest, ExternalBusyTicksOnlyForItsOwnState) {
    auto first = std::make_shared<ProgressToken>();
    model->beginExternalBusy("Opening", first);
    const Uuid firstID = model->busy()->id;
    auto second = std::make_shared<ProgressToken>();
    model->beginExternalBusy("Pasting", second);
    EXPECT_NE(model->busy()->id, firstID);
    first->setFraction(0.9);
    second->setFraction(0.4);
    EXPECT_TRUE(QTest::qWaitFor([&] { return model->busy()->fraction == 0.4; }, 5000));
    EXPECT_EQ(model->busy()->title, "Pasting");

    model->endExternalBusy();
    EXPECT_FALSE(model->busy());
    EXPECT_EQ(model->busyTimer(), nullptr);
}

TEST_F(EditorModelProcessTest, AClosedModelDropsTheResult) {
    std::atomic<bool> release{false};
    model->process("Slow", [&](AudioContent content, std::shared_ptr<ProgressToken>) {
        waitFor(release);
        return content;
    });
    model.reset();
    release = true;
    ASSERT_TRUE(QThreadPool::globalInstance()->waitForDone(5000));
    QCoreApplication::processEvents(); // delivers the queued commit to nobody
    EXPECT_EQ(stack.count(), 0);
    EXPECT_TRUE(errors.empty());
}

} // namespace
} // namespace harlune
