#include "support/Date.h"

#include <gtest/gtest.h>

using tavelo::Date;

TEST(DateTest, IsoTextRoundTripsAcrossTheCalendar) {
    const std::pair<const char*, double> cases[] = {
        {"1970-01-01T00:00:00Z", 0},
        {"2001-01-01T00:00:00Z", 978307200},
        {"2000-02-29T23:59:59Z", 951868799},  // leap day of a century leap year
    };
    for (const auto& [text, unix] : cases) {
        const auto parsed = Date::fromIsoString(text);
        ASSERT_TRUE(parsed.has_value()) << text;
        EXPECT_EQ(parsed->unixSeconds(), unix) << text;
        EXPECT_EQ(parsed->isoString(), text);
    }
    EXPECT_EQ(Date::fromReferenceSeconds(0), Date::fromUnixSeconds(978307200));
}

TEST(DateTest, OnlyTheWholeSecondZuluFormIsAccepted) {
    for (const char* text : {
             "2026-01-05T09:00:00.5Z",    // fraction
             "2026-01-05T09:00:00+09:00", // offset
             "2023-02-29T09:00:00Z",      // not a leap year
             "", "not a date"})
        EXPECT_FALSE(Date::fromIsoString(text).has_value()) << text;
}

TEST(DateTest, FractionsAreDroppedInTextAndKeptInMilliseconds) {
    const Date fractional = Date::fromUnixSeconds(1767603600.75);
    EXPECT_EQ(fractional.isoString(), "2026-01-05T09:00:00Z");
    EXPECT_LT(*Date::fromIsoString(fractional.isoString()), fractional); // so the copy re-read differs
    EXPECT_EQ(fractional.unixMilliseconds(), 1767603600750);
}
