#include "support/UUID.h"

#include <QString>

#include <gtest/gtest.h>

#include <unordered_set>

using tavelo::UUID;

TEST(UUIDTest, PrintsUpperCaseCanonicalTextAndReadsEitherCase) {
    const auto lower = UUID::fromString(std::string_view("785a676b-a42a-46b9-8d45-6335f8b12837"));
    ASSERT_TRUE(lower);
    EXPECT_EQ(lower->toStdString(), "785A676B-A42A-46B9-8D45-6335F8B12837");
    EXPECT_EQ(lower->toString(), QStringLiteral("785A676B-A42A-46B9-8D45-6335F8B12837"));
    EXPECT_EQ(UUID::fromString(lower->toString()), lower);
}

TEST(UUIDTest, RejectsMalformedText) {
    const char* bad[] = {
        "785A676B-A42A-46B9-8D45-6335F8B1283",    // short
        "785A676B-A42A-46B9-8D45-6335F8B128370",  // long
        "785A676BAA42A-46B9-8D45-6335F8B12837",   // missing hyphen
        "785A676B-A42A-46B9-8D45-6335F8B1283G",   // not hex
        "{785A676B-A42A-46B9-8D45-6335F8B1283}",
        "",
    };
    for (const char* text : bad) EXPECT_FALSE(UUID::fromString(std::string_view(text))) << text;
    EXPECT_FALSE(UUID::fromString(QStringLiteral("785A676B-A42A-46B9-8D45-6335F8B1283Ä")));
}

TEST(UUIDTest, RandomValuesAreVersionFourAndDistinct) {
    std::unordered_set<UUID> seen;
    for (int i = 0; i < 1000; ++i) {
        const UUID u = UUID::random();
        const std::string text = u.toStdString();
        EXPECT_EQ(text[14], '4');
        EXPECT_TRUE(text[19] == '8' || text[19] == '9' || text[19] == 'A' || text[19] == 'B');
        seen.insert(u);
    }
    EXPECT_EQ(seen.size(), 1000u);
}
