#include "dsp/ParallelFor.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace harlune {
namespace {

// Runs `run` over iterations that count their calls; true when each ran exactly once.
template <class Run> bool eachIterationOnce(int64_t count, Run run) {
    std::vector<std::atomic<int>> hits(static_cast<size_t>(count));
    run([&](int64_t i) { hits[static_cast<size_t>(i)].fetch_add(1); });
    return std::all_of(hits.begin(), hits.end(), [](const auto& hit) { return hit.load() == 1; });
}

TEST(ParallelForTest, EveryIterationRunsOnceInBothModes) {
    for (const bool concurrent : {false, true})
        EXPECT_TRUE(eachIterationOnce(1000, [&](auto body) { parallelFor(1000, concurrent, body); }));
    int calls = 0;
    parallelFor(0, true, [&](int64_t) { ++calls; });
    parallelFor(-3, false, [&](int64_t) { ++calls; });
    EXPECT_EQ(calls, 0);
}

// A system out of threads (std::thread's constructor throws) must not end the program: the
// threads that did start and the calling one share all iterations, and no more starts are tried.
TEST(ParallelForTest, ThreadsTheSystemRefusesLeaveTheWorkToTheOthers) {
    for (const int startable : {0, 1, 3}) {
        int attempts = 0;
        const auto starter = [&](FunctionRef<void()> work) {
            if (attempts++ >= startable)
                throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
            return std::thread([work] { work(); });
        };
        EXPECT_TRUE(eachIterationOnce(500, [&](auto body) { parallelFor(500, 8, body, starter); }))
            << startable;
        EXPECT_EQ(attempts, startable + 1);
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
