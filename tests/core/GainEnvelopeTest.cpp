#include "core/GainEnvelope.h"

#include "support/AllocationCounter.h"

#include <cmath>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

namespace harlune {
namespace {

std::vector<int64_t> framesOf(const GainEnvelope& e) {
    std::vector<int64_t> frames;
    for (const auto& p : e.points())
        frames.push_back(p.frame);
    return frames;
}

std::vector<double> gainsOf(const GainEnvelope& e) {
    std::vector<double> gains;
    for (const auto& p : e.points())
        gains.push_back(p.gainDB);
    return gains;
}

TEST(GainEnvelopeTest, ConstructorSortsStablyAndDoesNotClamp) {
    const EnvelopePoint a(300, 1), b(100, 99), c(300, 2), d(-5, -200);
    const GainEnvelope e({a, b, c, d});
    ASSERT_EQ(framesOf(e), (std::vector<int64_t>{-5, 100, 300, 300}));
    EXPECT_EQ(e.points()[2].id, a.id) << "equal frames keep their order";
    EXPECT_EQ(e.points()[3].id, c.id);
    EXPECT_EQ(e.points()[0].gainDB, -200);
    EXPECT_NE(a.id, b.id);
}

TEST(GainEnvelopeTest, FlatnessCountsOnlyAudibleGains) {
    EXPECT_TRUE(GainEnvelope().isFlat());
    EXPECT_TRUE(GainEnvelope({EnvelopePoint(0, 0), EnvelopePoint(9, 0), EnvelopePoint(20, 9e-7)}).isFlat());
    EXPECT_FALSE(GainEnvelope({EnvelopePoint(0, 0), EnvelopePoint(9, -1e-6)}).isFlat());
}

/// The curve the long way: find the two points around `frame` by a linear walk.
double naiveGainDB(const std::vector<EnvelopePoint>& points, double frame) {
    if (points.empty())
        return 0;
    if (frame <= static_cast<double>(points.front().frame))
        return points.front().gainDB;
    for (size_t i = 1; i < points.size(); ++i) {
        const auto& a = points[i - 1];
        const auto& b = points[i];
        if (frame < static_cast<double>(b.frame))
            return a.gainDB + (b.gainDB - a.gainDB) * (frame - static_cast<double>(a.frame)) /
                                  static_cast<double>(b.frame - a.frame);
    }
    return points.back().gainDB;
}

TEST(GainEnvelopeTest, GainIsLinearInDecibelsAndConstantBeyondTheEnds) {
    // No points, one point, two, and many (so the search bisects): against the linear walk.
    std::vector<EnvelopePoint> many;
    for (int i = 0; i < 37; ++i)
        many.emplace_back(i * 10, i % 2 == 0 ? 0.0 : 10.0 + i);
    for (const auto& points :
         {std::vector<EnvelopePoint>{}, std::vector<EnvelopePoint>{EnvelopePoint(1000, 6)},
          std::vector<EnvelopePoint>{EnvelopePoint(0, 0), EnvelopePoint(1000, -12)}, many}) {
        const GainEnvelope e(points);
        for (double f = -20; f < 1020; f += 1.5)
            EXPECT_NEAR(e.gainDB(f), naiveGainDB(points, f), 1e-12) << points.size() << " points at " << f;
        EXPECT_EQ(e.gainDB(-1e9), naiveGainDB(points, -1e9));
        EXPECT_EQ(e.gainDB(1e12), naiveGainDB(points, 1e12));
    }
    const GainEnvelope two({EnvelopePoint(0, 0), EnvelopePoint(1000, -12)});
    float linear = 0;
    two.fillLinearGains({500, 501}, &linear);
    EXPECT_NEAR(linear, std::pow(10.0, -6.0 / 20.0), 1e-6) << "not the mean of the linear gains";
}

TEST(GainEnvelopeTest, InsertClampsReplacesAtTheSameFrameAndKeepsOrder) {
    GainEnvelope e;
    e.insert(200, 40);
    e.insert(100, -100);
    e.insert(300, 3);
    EXPECT_EQ(gainsOf(e), (std::vector<double>{-60, 24, 3}));
    const auto before = e.points()[1].id;
    const auto id = e.insert(200, -1);
    EXPECT_EQ(framesOf(e), (std::vector<int64_t>{100, 200, 300}));
    EXPECT_EQ(e.points()[1].id, id);
    EXPECT_NE(id, before);
    EXPECT_EQ(e.points()[1].gainDB, -1);
}

TEST(GainEnvelopeTest, MoveStopsShortOfTheNeighbours) {
    GainEnvelope e;
    e.insert(100, 0);
    const auto middle = e.insert(150, 0);
    e.insert(200, 0);
    e.move(middle, 500, 30);
    EXPECT_EQ(e.points()[1].frame, 199);
    EXPECT_EQ(e.points()[1].gainDB, 24);
    e.move(middle, 50, -3);
    EXPECT_EQ(e.points()[1].frame, 101);
    EXPECT_EQ(e.points()[1].gainDB, -3);
    e.move(middle, std::nullopt, -7);
    EXPECT_EQ(e.points()[1].frame, 101);
    EXPECT_EQ(e.points()[1].gainDB, -7);

    const auto first = e.points().front().id;
    e.move(first, -1'000'000, 0);
    EXPECT_EQ(e.points().front().frame, -1'000'000) << "the first point has no lower limit";
    const auto last = e.points().back().id;
    e.move(last, 1'000'000, 0);
    EXPECT_EQ(e.points().back().frame, 1'000'000);

    const GainEnvelope unchanged = e;
    e.move(Uuid::random(), 5, 5);
    EXPECT_EQ(e, unchanged);
}

TEST(GainEnvelopeTest, MoveBetweenTouchingNeighboursSwapsTheLimits) {
    // Neighbours at 10 and 11 leave no frame: the limits 11 and 10 swap to 10...11.
    const EnvelopePoint a(10, 0), b(10, 0), c(11, 0);
    GainEnvelope e({a, b, c});
    e.move(b.id, 50, 0);
    EXPECT_EQ(e.points()[1].frame, 11);
    e.move(b.id, -50, 0);
    EXPECT_EQ(e.points()[1].frame, 10);
}

TEST(GainEnvelopeTest, RemoveAndRemoveAll) {
    const EnvelopePoint a(1, 0), b(2, 0);
    GainEnvelope e({a, b, a});
    e.remove(a.id);
    ASSERT_EQ(e.points().size(), 1u);
    EXPECT_EQ(e.points()[0].id, b.id);
    e.removeAll();
    EXPECT_TRUE(e.points().empty());
}

TEST(GainEnvelopeTest, PrepareSpanHoldsTheCurveOutsideTheRange) {
    GainEnvelope e;
    e.insert(0, 0);
    e.insert(10000, -20);
    const GainEnvelope before = e;
    const auto ids = e.prepareSpan({4000, 6000}, 100);
    EXPECT_EQ(framesOf(e), (std::vector<int64_t>{0, 3900, 4000, 6000, 6100, 10000}));
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(ids[0], e.points()[2].id);
    EXPECT_EQ(ids[1], e.points()[3].id);
    for (int64_t f = -10; f < 10010; f += 7)
        EXPECT_NEAR(e.gainDB(static_cast<double>(f)), before.gainDB(static_cast<double>(f)), 1e-9) << f;

    // Raising the inner points changes only the range and its ramps.
    for (const auto& id : ids)
        e.move(id, std::nullopt, 6);
    EXPECT_DOUBLE_EQ(e.gainDB(5000), 6);
    EXPECT_DOUBLE_EQ(e.gainDB(3000), before.gainDB(3000));
    EXPECT_DOUBLE_EQ(e.gainDB(7000), before.gainDB(7000));

    GainEnvelope untouched = before;
    EXPECT_TRUE(untouched.prepareSpan({50, 50}, 10).empty());
    EXPECT_EQ(untouched, before);

    GainEnvelope nearStart;
    const auto inner = nearStart.prepareSpan({30, 80}, 100);
    EXPECT_EQ(framesOf(nearStart), (std::vector<int64_t>{30, 80, 180})) << "no point before frame 0";
    EXPECT_EQ(inner.size(), 2u);
}

TEST(GainEnvelopeTest, AdjustedMovesPointsWithTheEdit) {
    GainEnvelope e;
    e.insert(50, 1);
    e.insert(150, 2); // 50 into the replaced range
    e.insert(199, 3); // the range's last frame
    e.insert(200, 4); // the range's end
    e.insert(500, 5);
    const FrameRange replaced{100, 200};

    const auto shorter = e.adjusted(replaced, 10);
    EXPECT_EQ(framesOf(shorter), (std::vector<int64_t>{50, 109, 110, 410}));
    EXPECT_EQ(gainsOf(shorter), (std::vector<double>{1, 3, 4, 5})) << "the later point wins a tie";

    const auto longer = e.adjusted(replaced, 1000);
    EXPECT_EQ(framesOf(longer), (std::vector<int64_t>{50, 150, 199, 1100, 1400}));

    const auto deleted = e.adjusted(replaced, 0);
    EXPECT_EQ(framesOf(deleted), (std::vector<int64_t>{50, 100, 400}));

    const auto inserted = e.adjusted({150, 150}, 25);
    EXPECT_EQ(framesOf(inserted), (std::vector<int64_t>{50, 175, 224, 225, 525}));

    std::set<Uuid> oldIds;
    for (const auto& p : e.points())
        oldIds.insert(p.id);
    for (const auto& p : longer.points())
        EXPECT_FALSE(oldIds.contains(p.id)) << "even unmoved points get fresh ids";
}

TEST(GainEnvelopeTest, AdjustedClampsGainsThroughInsert) {
    const GainEnvelope e({EnvelopePoint(10, 50), EnvelopePoint(20, -90)});
    EXPECT_EQ(gainsOf(e.adjusted({0, 0}, 0)), (std::vector<double>{24, -60}));
}

TEST(GainEnvelopeTest, ScaledRoundsHalvesAwayFromZeroAndSorts) {
    const EnvelopePoint a(3, 1), b(-3, 2), c(10, 3);
    const auto s = GainEnvelope({a, b, c}).scaled(0.5);
    EXPECT_EQ(framesOf(s), (std::vector<int64_t>{-2, 2, 5}));
    EXPECT_EQ(gainsOf(s), (std::vector<double>{2, 1, 3}));
    EXPECT_NE(s.points()[1].id, a.id);
    const auto up = GainEnvelope({EnvelopePoint(44100, -6)}).scaled(48000.0 / 44100.0);
    EXPECT_EQ(up.points()[0].frame, 48000);
}

// Filled gains against gainDB, for random curves read in random pieces, and a flat curve read
// as unity: EnvelopedSourceTest.

TEST(EnvelopeSetTest, SubscriptReadsAndExtends) {
    EnvelopeSet set;
    set.master.insert(0, -3);
    EXPECT_EQ(set[std::nullopt], set.master);
    EXPECT_TRUE(set[5].points().empty());
    EXPECT_TRUE(set.channels.empty()) << "reading past the end adds nothing";

    GainEnvelope own;
    own.insert(10, 2);
    set.set(2, own);
    ASSERT_EQ(set.channels.size(), 3u);
    EXPECT_TRUE(set.channels[0].points().empty());
    EXPECT_EQ(set[2], own);
    set.edit(std::nullopt).insert(20, 1);
    EXPECT_EQ(set.master.points().size(), 2u);
    set.set(std::nullopt, GainEnvelope());
    EXPECT_TRUE(set.master.points().empty());
}

TEST(EnvelopeSetTest, TrimsClampToTwentyFourDecibelsBothWays) {
    EnvelopeSet set;
    EXPECT_EQ(set.trim(3), 0);
    set.setTrim(1, 40, 2);
    EXPECT_EQ(set.trimDB, (std::vector<double>{0, 24}));
    set.setTrim(0, -40, 2);
    EXPECT_EQ(set.trimDB, (std::vector<double>{-24, 24}));
    set.setTrim(5, 3, 2);
    EXPECT_EQ(set.trimDB, (std::vector<double>{-24, 24})) << "an index past the count changes nothing";
    set.setTrim(5, 3, 3);
    EXPECT_EQ(set.trimDB, (std::vector<double>{0, 0, 0})) << "a new count resets the trims first";
    EXPECT_EQ(set.trim(2), 0);
}

TEST(EnvelopeSetTest, FlatAndEmptyDiffer) {
    EnvelopeSet set;
    EXPECT_TRUE(set.isFlat());
    EXPECT_TRUE(set.isEmpty());
    set.master.insert(5, 0);
    EXPECT_TRUE(set.isFlat());
    EXPECT_FALSE(set.isEmpty());
    EnvelopeSet trimmed;
    trimmed.trimDB = {0, 1e-7};
    EXPECT_TRUE(trimmed.isFlat());
    EXPECT_TRUE(trimmed.isEmpty());
    trimmed.trimDB = {0, 1e-3};
    EXPECT_FALSE(trimmed.isFlat());
    EXPECT_FALSE(trimmed.isEmpty());
    EnvelopeSet channel;
    channel.edit(1).insert(3, -2);
    EXPECT_FALSE(channel.isFlat());
}

TEST(EnvelopeSetTest, GainSumsMasterChannelAndTrim) {
    EnvelopeSet set;
    set.master.insert(0, -6);
    set.edit(0).insert(0, 2);
    set.setTrim(1, 1.5, 2);
    EXPECT_DOUBLE_EQ(set.gainDB(0, 100), -4);
    EXPECT_DOUBLE_EQ(set.gainDB(1, 100), -4.5);
    EXPECT_DOUBLE_EQ(set.gainDB(2, 100), -6);
}

TEST(EnvelopeSetTest, FillLinearGainsAllocatesNothing) {
    EnvelopeSet set;
    for (int i = 0; i < 100; ++i)
        set.master.insert(i * 1000, (i % 7) - 3.0);
    set.edit(1).insert(500, -2);
    set.setTrim(1, 2, 2);
    std::vector<float> into(4096), scratch(4096);
    testing::AllocationCounter counter;
    set.fillLinearGains(1, {12345, 12345 + 4096}, into.data(), scratch.data());
    EXPECT_EQ(counter.count(), 0);
}

TEST(EnvelopeSetTest, AdjustedScaledAndFitted) {
    EnvelopeSet set;
    set.master.insert(300, -1);
    set.edit(0).insert(300, -2);
    set.edit(1).insert(50, -3);
    set.setTrim(0, 4, 2);

    const auto adjusted = set.adjusted({100, 200}, 0);
    EXPECT_EQ(adjusted.master.points()[0].frame, 200);
    EXPECT_EQ(adjusted.channels[0].points()[0].frame, 200);
    EXPECT_EQ(adjusted.channels[1].points()[0].frame, 50);
    EXPECT_EQ(adjusted.trimDB, set.trimDB);

    const auto scaled = set.scaled(2);
    EXPECT_EQ(scaled.master.points()[0].frame, 600);
    EXPECT_EQ(scaled.channels[1].points()[0].frame, 100);
    EXPECT_EQ(scaled.trimDB, set.trimDB);

    const auto mono = set.fitted(1);
    EXPECT_EQ(mono.master, set.master);
    EXPECT_TRUE(mono.channels.empty());
    EXPECT_TRUE(mono.trimDB.empty());
    EXPECT_EQ(set.fitted(2), set);
    EnvelopeSet uneven = set;
    uneven.trimDB = {1};
    const auto fitted = uneven.fitted(2);
    EXPECT_EQ(fitted.channels, set.channels);
    EXPECT_TRUE(fitted.trimDB.empty());
}

TEST(EnvelopeJSONTest, RoundTripsWithTheDocumentedKeys) {
    EnvelopeSet set;
    set.master.insert(10, -1.5);
    set.master.insert(20, 2);
    set.edit(1).insert(7, -3);
    set.trimDB = {0.5, -0.25};
    const nlohmann::json json = set;
    EXPECT_EQ(json.at("master").at("points").size(), 2u);
    const auto& point = json.at("master").at("points").at(0);
    EXPECT_EQ(point.at("frame"), 10);
    EXPECT_EQ(point.at("gainDB"), -1.5);
    EXPECT_EQ(point.at("id"), set.master.points()[0].id.string());
    EXPECT_EQ(json.at("channels").size(), 2u);
    EXPECT_EQ(json.at("trimDB"), nlohmann::json({0.5, -0.25}));
    EXPECT_EQ(json.get<EnvelopeSet>(), set);
}

TEST(EnvelopeJSONTest, DecodingSortsAndRequiresEveryKey) {
    const auto json = nlohmann::json::parse(R"({"points": [
        {"id": "00000000-0000-4000-8000-000000000002", "frame": 90, "gainDB": 1},
        {"id": "00000000-0000-4000-8000-000000000001", "frame": 5, "gainDB": 200}]})");
    const auto e = json.get<GainEnvelope>();
    EXPECT_EQ(framesOf(e), (std::vector<int64_t>{5, 90}));
    EXPECT_EQ(e.points()[0].gainDB, 200) << "decoding does not clamp";

    EXPECT_THROW(nlohmann::json::parse(R"({"points": [{"frame": 1, "gainDB": 0}]})").get<GainEnvelope>(),
                 nlohmann::json::exception);
    EXPECT_THROW(nlohmann::json::parse(R"({"master": {"points": []}, "channels": []})").get<EnvelopeSet>(),
                 nlohmann::json::exception);
    EXPECT_THROW(nlohmann::json::parse(R"({})").get<GainEnvelope>(), nlohmann::json::exception);
}

} // namespace
} // namespace harlune
