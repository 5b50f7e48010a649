#include "support/UUID.h"

#include <QString>

#include <gtest/gtest.h>

#include <unordered_set>

using tavelo::UUID;

TEST(UUIDTest, ReadsEitherCaseOfTheCanonicalFormAndPrintsUpperCase) {
    const auto lower = UUID::fromString(std::string_view("785a676b-a42a-46b9-8d45-6335f8b12837"));
    ASSERT_TRUE(lower);
    EXPECT_EQ(lower->toString(), QStringLiteral("785A676B-A42A-46B9-8D45-6335F8B12837"));
    EXPECT_EQ(UUID::fromString(lower->toString()), lower);
    for (const char* bad : {"785A676B-A42A-46B9-8D45-6335F8B1283", "785A676BAA42A-46B9-8D45-6335F8B12837",
                            "785A676B-A42A-46B9-8D45-6335F8B1283G", ""})
        EXPECT_FALSE(UUID::fromString(std::string_view(bad))) << bad;
    EXPECT_FALSE(UUID::fromString(QStringLiteral("785A676B-A42A-46B9-8D45-6335F8B1283Ä")));
}

TEST(UUIDTest, RandomValuesAreDistinct) {
    std::unordered_set<UUID> seen;
    for (int i = 0; i < 1000; ++i) seen.insert(UUID::random());
    EXPECT_EQ(seen.size(), 1000u);
}
