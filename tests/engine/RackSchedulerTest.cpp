// The two main loops the rack runs on outside the application: the hand-driven one of the tests
// and the one of the command line over a `MainThreadQueue`.
#include "engine/ManualRackScheduler.h"
#include "engine/QueueRackScheduler.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace harlune {
namespace {

using namespace std::chrono_literals;

TEST(ManualRackScheduler, RunsDueTasksInTimeOrderAtTheirOwnTime) {
    ManualRackScheduler scheduler;
    const auto origin = scheduler.now();
    std::string order;
    std::vector<std::chrono::milliseconds> times;
    const auto note = [&](char name) {
        order += name;
        times.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(scheduler.now() - origin));
    };
    scheduler.schedule(30ms, [&] { note('c'); });
    scheduler.schedule(10ms, [&] {
        note('a');
        scheduler.schedule(5ms, [&] { note('b'); }); // due within the same advance
    });
    const auto cancelled = scheduler.schedule(20ms, [&] { note('x'); });
    scheduler.schedule(30ms, [&] { note('d'); }); // same time: order of scheduling
    scheduler.cancel(cancelled);
    scheduler.cancel(12345);
    EXPECT_EQ(scheduler.advance(29ms), 2);
    EXPECT_EQ(order, "ab");
    EXPECT_EQ(scheduler.advance(1ms), 2);
    EXPECT_EQ(order, "abcd");
    EXPECT_EQ(times, (std::vector<std::chrono::milliseconds>{10ms, 15ms, 30ms, 30ms}));
    EXPECT_EQ(scheduler.now() - origin, 30ms);

    std::string background;
    scheduler.runInBackground([&] {
        background += "work ";
        return [&] {
            background += "result";
        };
    });
    EXPECT_EQ(background, "") << "jobs wait to be pumped";
    EXPECT_EQ(scheduler.runBackgroundJobs(), 1);
    EXPECT_EQ(background, "work result");
}

TEST(QueueRackScheduler, PostsDueTasksAndJobResultsToTheQueueAndHonoursCancel) {
    MainThreadQueue queue;
    std::string ran;
    std::thread::id resultThread;
    std::thread::id workThread;
    {
        QueueRackScheduler scheduler(queue);
        scheduler.schedule(2ms, [&] { ran += "late "; });
        scheduler.schedule(0ms, [&] { ran += "early "; });
        const auto cancelled = scheduler.schedule(1ms, [&] { ran += "cancelled "; });
        scheduler.cancel(cancelled);
        scheduler.runInBackground([&] {
            workThread = std::this_thread::get_id();
            return [&] {
                resultThread = std::this_thread::get_id();
                ran += "job ";
            };
        });
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (ran.size() < std::string("early late job ").size() &&
               std::chrono::steady_clock::now() < deadline)
            queue.runFor(10ms);
        scheduler.schedule(0ms, [&] { ran += "orphan"; });
        std::this_thread::yield();
    }
    queue.runFor(1ms);
    EXPECT_EQ(ran.find("cancelled"), std::string::npos);
    EXPECT_EQ(ran.find("orphan"), std::string::npos) << "nothing runs once the scheduler is gone";
    EXPECT_LT(ran.find("early"), ran.find("late"));
    EXPECT_NE(ran.find("job"), std::string::npos);
    EXPECT_EQ(resultThread, std::this_thread::get_id());
    EXPECT_NE(workThread, std::this_thread::get_id());
}

} // namespace
} // namespace harlune
