#include "support/Date.h"

#include <gtest/gtest.h>

using tavelo::Date;

TEST(DateTest, IsoTextRoundTripsAcrossTheCalendar) {
    struct Case {
        const char* text;
        double unix;
    };
    const Case cases[] = {
        {"1970-01-01T00:00:00Z", 0},
        {"2001-01-01T00:00:00Z", 978307200},
        {"2000-02-29T23:59:59Z", 951868799},   // leap day of a century leap year
        {"2024-02-29T12:00:00Z", 1709208000},
        {"1969-12-31T23:59:59Z", -1},          // before the Unix epoch
        {"2100-03-01T00:00:00Z", 4107542400},  // 2100 is not a leap year
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto parsed = Date::fromIsoString(c.text);
        ASSERT_TRUE(parsed.has_value());
        EXPECT_DOUBLE_EQ(parsed->unixSeconds(), c.unix);
        EXPECT_EQ(parsed->isoString(), c.text);
    }
}

TEST(DateTest, OnlyTheWholeSecondZuluFormIsAccepted) {
    const char* rejected[] = {
        "2026-01-05T09:00:00.5Z",    // fraction
        "2026-01-05T09:00:00+09:00", // offset
        "2026-01-05T09:00:00z",      // lower-case zone
        "2026-01-05 09:00:00Z",      // space separator
        "2026-02-30T09:00:00Z",      // no such day
        "2023-02-29T09:00:00Z",      // not a leap year
        "2026-13-01T09:00:00Z", "2026-00-01T09:00:00Z", "2026-01-01T24:00:00Z",
        "2026-01-01T23:60:00Z", "2026-01-01T23:59:60Z", "2026-1-01T09:00:00Z", "", "not a date",
    };
    for (const char* text : rejected) EXPECT_FALSE(Date::fromIsoString(text).has_value()) << text;
}

TEST(DateTest, EncodingsAgreeAndFractionsAreLostOnlyInText) {
    const Date reference = Date::fromReferenceSeconds(0);
    EXPECT_EQ(reference.isoString(), "2001-01-01T00:00:00Z");
    EXPECT_DOUBLE_EQ(reference.unixSeconds(), 978307200.0);

    const Date fractional = Date::fromUnixSeconds(1767603600.75);
    EXPECT_EQ(fractional.isoString(), "2026-01-05T09:00:00Z");
    const auto reread = Date::fromIsoString(fractional.isoString());
    ASSERT_TRUE(reread);
    EXPECT_NE(*reread, fractional);
    EXPECT_LT(*reread, fractional);
    EXPECT_EQ(fractional.unixMilliseconds(), 1767603600750);

    // A fraction before 1970 still rounds towards the past in text and
    // truncates towards zero in milliseconds.
    const Date before = Date::fromUnixSeconds(-0.5);
    EXPECT_EQ(before.isoString(), "1969-12-31T23:59:59Z");
    EXPECT_EQ(before.unixMilliseconds(), -500);
}
