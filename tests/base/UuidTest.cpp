#include "base/Uuid.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>

namespace harlune {
namespace {

TEST(UuidTest, RandomIdsAreVersionFourAndDistinct) {
    std::set<Uuid> seen;
    for (int i = 0; i < 1000; ++i) {
        const Uuid id = Uuid::random();
        EXPECT_EQ(id.bytes[6] >> 4, 4);
        EXPECT_EQ(id.bytes[8] >> 6, 2);
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

TEST(UuidTest, TextRoundTripsInUpperCaseAndParsesLowerCase) {
    const auto parsed = Uuid::fromString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->string(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(Uuid::fromString(parsed->string()), parsed);
    const Uuid id = Uuid::random();
    EXPECT_EQ(nlohmann::json(id).get<Uuid>(), id);
}

TEST(UuidTest, MalformedTextIsRejected) {
    for (const char* text : {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
                             "E621E1F8-C36C-495A-93FC-0C247A3E6E5G", "E621E1F8+C36C-495A-93FC-0C247A3E6E5F"})
        EXPECT_FALSE(Uuid::fromString(text)) << text;
    EXPECT_THROW(nlohmann::json("nope").get<Uuid>(), nlohmann::json::exception);
    EXPECT_THROW(nlohmann::json(12).get<Uuid>(), nlohmann::json::exception);
}

} // namespace
} // namespace harlune
