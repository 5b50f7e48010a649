#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tavelo {

// An instant in time with sub-second precision, stored as seconds since
// 2001-01-01T00:00:00Z. Three encodings are in use: whole-second ISO 8601
// text in UTC ("2026-01-05T09:00:00Z"), seconds since 2001 and seconds since
// 1970. Comparison is exact, so a value with a fraction of a second differs
// from its copy re-read from ISO text.
class Date {
public:
    // Seconds between 1970-01-01 and 2001-01-01.
    static constexpr double kUnixToReference = 978307200.0;

    constexpr Date() = default;

    static constexpr Date fromReferenceSeconds(double seconds) { return Date(seconds); }
    static constexpr Date fromUnixSeconds(double seconds) { return Date(seconds - kUnixToReference); }
    static Date now();

    constexpr double referenceSeconds() const { return seconds_; }
    constexpr double unixSeconds() const { return seconds_ + kUnixToReference; }
    // Whole milliseconds since 1970, truncated towards zero.
    std::int64_t unixMilliseconds() const;

    // "YYYY-MM-DDTHH:MM:SSZ"; the fraction of a second is dropped (rounded
    // towards the past).
    std::string isoString() const;
    // Accepts exactly "YYYY-MM-DDTHH:MM:SSZ" with valid fields; anything else
    // (fractions, offsets, lower-case letters) yields nothing.
    static std::optional<Date> fromIsoString(std::string_view text);

    constexpr Date addingSeconds(double seconds) const { return Date(seconds_ + seconds); }
    constexpr double secondsSince(Date other) const { return seconds_ - other.seconds_; }

    constexpr auto operator<=>(const Date&) const = default;
    constexpr bool operator==(const Date&) const = default;

private:
    constexpr explicit Date(double seconds) : seconds_(seconds) {}
    double seconds_ = 0.0;
};

// A half-open span of time; `end` is never before `start` by construction of
// the callers, but the type does not enforce it.
struct DateInterval {
    Date start;
    Date end;

    double duration() const { return end.secondsSince(start); }
    bool operator==(const DateInterval&) const = default;
};

} // namespace tavelo

template <>
struct std::hash<tavelo::Date> {
    std::size_t operator()(const tavelo::Date& d) const noexcept {
        return std::hash<double>{}(d.referenceSeconds());
    }
};
