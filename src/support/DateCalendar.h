#pragma once

#include "support/Date.h"

#include <QString>

#include <memory>
#include <optional>

#include <unicode/uversion.h>

U_NAMESPACE_BEGIN
class Calendar;
U_NAMESPACE_END

namespace tavelo {

// The date calendar behind all day, week and month arithmetic: a Gregorian
// calendar in one time zone and locale, with a first weekday. Injected
// everywhere so that tests can pin the zone, the locale and the week start.
// A value type: copies are independent. Not for concurrent use of one
// instance from several threads.
class DateCalendar {
public:
    enum class Unit { day, weekOfYear, month, year, hour, minute, second };

    // `timeZoneID` in IANA form ("Asia/Tokyo"), `locale` like "ja_JP".
    // Without `firstWeekday` (1 = Sunday ... 7 = Saturday) the locale decides.
    DateCalendar(const QString& timeZoneID, const QString& locale, std::optional<int> firstWeekday = std::nullopt);
    // The user's zone and locale.
    static DateCalendar current();

    DateCalendar(const DateCalendar& other);
    DateCalendar& operator=(const DateCalendar& other);
    DateCalendar(DateCalendar&&) noexcept;
    DateCalendar& operator=(DateCalendar&&) noexcept;
    ~DateCalendar();

    QString timeZoneID() const;
    QString locale() const { return locale_; }
    int firstWeekday() const;
    DateCalendar withFirstWeekday(int weekday) const;

    // Midnight of the day holding `date` (or the first instant of that day
    // where midnight does not exist).
    Date startOfDay(Date date) const;
    // Calendar addition: adding one day keeps the wall-clock time across a
    // daylight-saving change. Nothing when the result is out of range.
    std::optional<Date> adding(Unit unit, int value, Date date) const;
    // Whole units from `from` to `to` as the calendar counts them (negative
    // when `to` is earlier). Nothing when the count does not fit.
    std::optional<int> difference(Unit unit, Date from, Date to) const;
    // The interval of the day, week or month holding `date`; the end is the
    // start of the next one.
    std::optional<DateInterval> interval(Unit unit, Date date) const;

    struct Components {
        int year;
        int month;   // 1 ... 12
        int day;     // 1 ... 31
        int hour;
        int minute;
        int second;
        int weekday; // 1 = Sunday ... 7 = Saturday
    };
    Components components(Date date) const;
    // A local wall-clock time; nothing when the fields are out of range.
    std::optional<Date> date(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) const;

private:
    std::unique_ptr<icu::Calendar> calendar_;
    QString locale_;
};

} // namespace tavelo
