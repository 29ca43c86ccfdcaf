#include "dsp/ParallelFor.h"

#include <atomic>
#include <gtest/gtest.h>
#include <stdexcept>
#include <vector>

namespace harlune {
namespace {

TEST(ParallelForTest, EveryIterationRunsOnceInBothModes) {
    for (const bool concurrent : {false, true}) {
        std::vector<std::atomic<int>> hits(1000);
        parallelFor(1000, concurrent, [&](int64_t i) { hits[static_cast<size_t>(i)].fetch_add(1); });
        for (const auto& hit : hits)
            EXPECT_EQ(hit.load(), 1);
    }
    int calls = 0;
    parallelFor(0, true, [&](int64_t) { ++calls; });
    parallelFor(-3, false, [&](int64_t) { ++calls; });
    EXPECT_EQ(calls, 0);
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
