#include "dsp/ParallelFor.h"

#include <atomic>
#include <gtest/gtest.h>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace harlune {
namespace {

// Counts how often each of `count` iterations ran.
struct Hits {
    explicit Hits(int64_t count) : counts(static_cast<size_t>(count)) {}
    void operator()(int64_t i) { counts[static_cast<size_t>(i)].fetch_add(1); }
    bool eachOnce() const {
        for (const auto& hit : counts)
            if (hit.load() != 1)
                return false;
        return true;
    }
    std::vector<std::atomic<int>> counts;
};

TEST(ParallelForTest, EveryIterationRunsOnceInBothModes) {
    for (const bool concurrent : {false, true}) {
        Hits hits(1000);
        parallelFor(1000, concurrent, [&](int64_t i) { hits(i); });
        EXPECT_TRUE(hits.eachOnce()) << concurrent;
    }
    int calls = 0;
    parallelFor(0, true, [&](int64_t) { ++calls; });
    parallelFor(-3, false, [&](int64_t) { ++calls; });
    EXPECT_EQ(calls, 0);
}

// A system out of threads (std::thread's constructor throws) must not end the program: the
// threads that did start and the calling one share all iterations.
TEST(ParallelForTest, ThreadsTheSystemRefusesLeaveTheWorkToTheOthers) {
    for (const int startable : {0, 1, 3}) {
        int attempts = 0;
        const auto starter = [&](FunctionRef<void()> work) {
            if (attempts++ >= startable)
                throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
            return std::thread([work] { work(); });
        };
        Hits hits(500);
        parallelFor(
            500, 8, [&](int64_t i) { hits(i); }, starter);
        EXPECT_TRUE(hits.eachOnce()) << startable << " threads started";
        EXPECT_EQ(attempts, startable + 1) << "no more starts are tried after a refusal";
    }
}

TEST(ParallelForTest, AnErrorIsRethrownAfterAllThreadsStop) {
    std::atomic<int> finished{0};
    EXPECT_THROW(parallelFor(64, true,
                             [&](int64_t i) {
                                 if (i == 5)
                                     throw std::runtime_error("iteration failed");
                                 finished.fetch_add(1);
                             }),
                 std::runtime_error);
    EXPECT_LT(finished.load(), 64);
}

} // namespace
} // namespace harlune
