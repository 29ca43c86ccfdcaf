// The effects rack's scheduler on Qt: delayed tasks on the main thread unless cancelled, and
// background work whose continuation comes back to the main thread, or not at all once the
// scheduler is gone.
#include "editor/QtRackScheduler.h"

#include <QCoreApplication>
#include <QTest>
#include <QThread>
#include <QThreadPool>
#include <atomic>
#include <gtest/gtest.h>
#include <memory>

namespace harlune {
namespace {

using namespace std::chrono_literals;

TEST(QtRackSchedulerTest, TasksRunOnTheMainThreadUnlessCancelled) {
    QtRackScheduler scheduler;
    std::vector<int> ran;
    scheduler.schedule(5ms, [&] { ran.push_back(2); });
    const auto cancelled = scheduler.schedule(1ms, [&] { ran.push_back(9); });
    scheduler.schedule(0ms, [&] { ran.push_back(1); });
    scheduler.cancel(cancelled);
    scheduler.cancel(12345); // unknown: ignored
    ASSERT_TRUE(QTest::qWaitFor([&] { return ran.size() == 2; }, 5000));
    QTest::qWait(20);
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
}

TEST(QtRackSchedulerTest, BackgroundResultsComeBackToTheMainThreadWhileTheSchedulerLives) {
    auto scheduler = std::make_unique<QtRackScheduler>();
    QThread* worker = nullptr;
    QThread* finisher = nullptr;
    scheduler->runInBackground([&]() -> std::function<void()> {
        worker = QThread::currentThread();
        return [&] {
            finisher = QThread::currentThread();
        };
    });
    ASSERT_TRUE(QTest::qWaitFor([&] { return finisher != nullptr; }, 5000));
    EXPECT_NE(worker, QCoreApplication::instance()->thread());
    EXPECT_EQ(finisher, QCoreApplication::instance()->thread());

    // A result on its way when the scheduler goes is dropped.
    std::atomic<bool> release{false};
    bool finished = false;
    scheduler->runInBackground([&]() -> std::function<void()> {
        while (!release)
            QThread::yieldCurrentThread();
        return [&] {
            finished = true;
        };
    });
    scheduler.reset();
    release = true;
    QThreadPool::globalInstance()->waitForDone(5000);
    QCoreApplication::processEvents();
    EXPECT_FALSE(finished);
}

} // namespace
} // namespace harlune
