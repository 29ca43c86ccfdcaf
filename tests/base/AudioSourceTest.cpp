#include "base/AudioSource.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

ArraySource ramp(int channels, int frames) {
    std::vector<std::vector<float>> data(static_cast<size_t>(channels),
                                         std::vector<float>(static_cast<size_t>(frames)));
    for (int c = 0; c < channels; ++c)
        for (int i = 0; i < frames; ++i)
            data[static_cast<size_t>(c)][static_cast<size_t>(i)] = static_cast<float>(c * 1000 + i);
    return ArraySource(std::move(data), 48000);
}

TEST(ArraySourceTest, ReadWritesOnlyTheChannelsBothHave) {
    const ArraySource source = ramp(3, 10);
    std::vector<float> a(4, -1), b(4, -1);
    std::vector<float*> two{a.data(), b.data()};
    source.read({2, 6}, two);
    EXPECT_EQ(a, (std::vector<float>{2, 3, 4, 5}));
    EXPECT_EQ(b, (std::vector<float>{1002, 1003, 1004, 1005}));

    const ArraySource mono = ramp(1, 5);
    std::vector<float> x(2, -1), y(2, -1);
    std::vector<float*> extra{x.data(), y.data()};
    mono.read({3, 5}, extra);
    EXPECT_EQ(x, (std::vector<float>{3, 4}));
    EXPECT_EQ(y, (std::vector<float>{-1, -1})) << "an extra destination stays untouched";
}

TEST(ArraySourceTest, DerivedProperties) {
    const ArraySource source = ramp(2, 24000);
    EXPECT_DOUBLE_EQ(source.duration(), 0.5);
    EXPECT_EQ(source.fullRange(), FrameRange(0, 24000));
    EXPECT_EQ(ArraySource({{1.0f}}, 0).duration(), 0.0);
    const auto empty = source.readChannels({5, 5});
    ASSERT_EQ(empty.size(), 2u);
    EXPECT_TRUE(empty[0].empty());
    EXPECT_EQ(source.readChannels({1, 3})[1], (std::vector<float>{1001, 1002}));
}

TEST(ForEachChunkTest, WalksInOrderWithShortLastChunk) {
    const ArraySource source = ramp(2, 10);
    std::vector<int64_t> starts;
    std::vector<float> seen;
    source.forEachChunk(FrameRange{1, 9}, 3, [&](ChunkViews views, int64_t start) {
        starts.push_back(start);
        ASSERT_EQ(views.size(), 2u);
        EXPECT_EQ(views[0].size(), views[1].size());
        for (size_t i = 0; i < views[0].size(); ++i) {
            seen.push_back(views[0][i]);
            EXPECT_EQ(views[1][i], views[0][i] + 1000);
        }
    });
    EXPECT_EQ(starts, (std::vector<int64_t>{1, 4, 7}));
    EXPECT_EQ(seen, (std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(ForEachChunkTest, ChunkSizeZeroStillAdvancesOneFrame) {
    const ArraySource source = ramp(1, 4);
    int calls = 0;
    source.forEachChunk(std::nullopt, 0, [&](ChunkViews views, int64_t start) {
        EXPECT_EQ(views[0].size(), 1u);
        EXPECT_EQ(start, calls);
        ++calls;
    });
    EXPECT_EQ(calls, 4);
}

TEST(ForEachChunkTest, EmptyRangeCallsNothingAndErrorsPassOn) {
    const ArraySource source = ramp(1, 4);
    int calls = 0;
    source.forEachChunk(FrameRange{2, 2}, 16, [&](ChunkViews, int64_t) { ++calls; });
    EXPECT_EQ(calls, 0);
    EXPECT_THROW(source.forEachChunk(std::nullopt, 1,
                                     [&](ChunkViews, int64_t start) {
                                         ++calls;
                                         if (start == 1)
                                             throw std::runtime_error("stop");
                                     }),
                 std::runtime_error);
    EXPECT_EQ(calls, 2);
}

TEST(ArraySourceDeathTest, ChannelsOfUnequalLengthStopTheProgram) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(ArraySource({{1.0f, 2.0f}, {1.0f}}, 48000), "differ in length");
    EXPECT_DEATH(ArraySource({}, 48000), "at least one channel");
    const ArraySource source = ramp(1, 4);
    std::vector<float> out(8);
    std::vector<float*> pointers{out.data()};
    EXPECT_DEATH(source.read({2, 6}, pointers), "outside the source");
}

} // namespace
} // namespace harlune
