#include "support/DateCalendar.h"

#include <QLocale>
#include <QTimeZone>

#include <unicode/calendar.h>
#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>

#include <cmath>
#include <stdexcept>

namespace tavelo {

namespace {

constexpr double kMillisPerSecond = 1000.0;

UDate toUDate(Date date) { return date.unixSeconds() * kMillisPerSecond; }
Date fromUDate(UDate millis) { return Date::fromUnixSeconds(millis / kMillisPerSecond); }

icu::UnicodeString toUnicode(const QString& text) {
    return icu::UnicodeString(reinterpret_cast<const UChar*>(text.utf16()), static_cast<int32_t>(text.size()));
}

UCalendarDateFields field(DateCalendar::Unit unit) {
    switch (unit) {
    case DateCalendar::Unit::day: return UCAL_DATE;
    case DateCalendar::Unit::weekOfYear: return UCAL_WEEK_OF_YEAR;
    case DateCalendar::Unit::month: return UCAL_MONTH;
    case DateCalendar::Unit::year: return UCAL_YEAR;
    case DateCalendar::Unit::hour: return UCAL_HOUR_OF_DAY;
    case DateCalendar::Unit::minute: return UCAL_MINUTE;
    case DateCalendar::Unit::second: return UCAL_SECOND;
    }
    return UCAL_DATE;
}

} // namespace

DateCalendar::DateCalendar(const QString& timeZoneID, const QString& locale, std::optional<int> firstWeekday)
    : locale_(locale) {
    UErrorCode status = U_ZERO_ERROR;
    icu::TimeZone* zone = icu::TimeZone::createTimeZone(toUnicode(timeZoneID));
    icu::Locale icuLocale(locale.toUtf8().constData());
    calendar_.reset(new icu::GregorianCalendar(zone, icuLocale, status));
    if (U_FAILURE(status)) throw std::runtime_error("cannot create a Gregorian calendar");
    // The Gregorian calendar throughout, without the Julian switch-over.
    static_cast<icu::GregorianCalendar*>(calendar_.get())->setGregorianChange(-8.64e15, status);
    calendar_->setLenient(true);
    if (firstWeekday && *firstWeekday >= 1 && *firstWeekday <= 7)
        calendar_->setFirstDayOfWeek(static_cast<UCalendarDaysOfWeek>(*firstWeekday));
}

DateCalendar DateCalendar::current() {
    return DateCalendar(QString::fromUtf8(QTimeZone::systemTimeZoneId()), QLocale::system().name());
}

DateCalendar::DateCalendar(const DateCalendar& other) : calendar_(other.calendar_->clone()), locale_(other.locale_) {}

DateCalendar& DateCalendar::operator=(const DateCalendar& other) {
    if (this != &other) {
        calendar_.reset(other.calendar_->clone());
        locale_ = other.locale_;
    }
    return *this;
}

DateCalendar::DateCalendar(DateCalendar&&) noexcept = default;
DateCalendar& DateCalendar::operator=(DateCalendar&&) noexcept = default;
DateCalendar::~DateCalendar() = default;

QString DateCalendar::timeZoneID() const {
    icu::UnicodeString id;
    calendar_->getTimeZone().getID(id);
    return QString(reinterpret_cast<const QChar*>(id.getBuffer()), id.length());
}

int DateCalendar::firstWeekday() const { return static_cast<int>(calendar_->getFirstDayOfWeek()); }

DateCalendar DateCalendar::withFirstWeekday(int weekday) const {
    DateCalendar copy(*this);
    if (weekday >= 1 && weekday <= 7) copy.calendar_->setFirstDayOfWeek(static_cast<UCalendarDaysOfWeek>(weekday));
    return copy;
}

Date DateCalendar::startOfDay(Date date) const {
    auto interval = this->interval(Unit::day, date);
    return interval ? interval->start : date;
}

std::optional<Date> DateCalendar::adding(Unit unit, int value, Date date) const {
    if (!std::isfinite(date.unixSeconds())) return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    calendar_->setTime(toUDate(date), status);
    calendar_->add(field(unit), value, status);
    const UDate result = calendar_->getTime(status);
    if (U_FAILURE(status)) return std::nullopt;
    return fromUDate(result);
}

std::optional<int> DateCalendar::difference(Unit unit, Date from, Date to) const {
    if (!std::isfinite(from.unixSeconds()) || !std::isfinite(to.unixSeconds())) return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    calendar_->setTime(toUDate(from), status);
    const int32_t count = calendar_->fieldDifference(toUDate(to), field(unit), status);
    if (U_FAILURE(status)) return std::nullopt;
    return count;
}

std::optional<DateInterval> DateCalendar::interval(Unit unit, Date date) const {
    if (!std::isfinite(date.unixSeconds())) return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    icu::Calendar& cal = *calendar_;
    cal.setTime(toUDate(date), status);
    if (U_FAILURE(status)) return std::nullopt;
    // Truncate to the start of the unit, then add one unit for the end.
    switch (unit) {
    case Unit::year:
        cal.set(UCAL_MONTH, 0);
        [[fallthrough]];
    case Unit::month:
        cal.set(UCAL_DATE, 1);
        [[fallthrough]];
    case Unit::day:
        break;
    case Unit::weekOfYear: {
        const int weekday = cal.get(UCAL_DAY_OF_WEEK, status);
        const int offset = (weekday - cal.getFirstDayOfWeek() + 7) % 7;
        cal.add(UCAL_DATE, -offset, status);
        break;
    }
    case Unit::hour:
    case Unit::minute:
    case Unit::second: {
        UDate millis = cal.getTime(status);
        const double size = unit == Unit::hour ? 3600000.0 : unit == Unit::minute ? 60000.0 : 1000.0;
        // Zone offsets are whole minutes, so hours need the calendar.
        if (unit == Unit::hour) {
            cal.set(UCAL_MINUTE, 0);
            cal.set(UCAL_SECOND, 0);
            cal.set(UCAL_MILLISECOND, 0);
            millis = cal.getTime(status);
        } else {
            millis = std::floor(millis / size) * size;
        }
        if (U_FAILURE(status)) return std::nullopt;
        return DateInterval{fromUDate(millis), fromUDate(millis + size)};
    }
    }
    // Start of that day. Where midnight does not exist (a zone that springs
    // forward at midnight), the calendar lands on the first valid instant.
    cal.set(UCAL_HOUR_OF_DAY, 0);
    cal.set(UCAL_MINUTE, 0);
    cal.set(UCAL_SECOND, 0);
    cal.set(UCAL_MILLISECOND, 0);
    const UDate start = cal.getTime(status);
    UCalendarDateFields step = UCAL_DATE;
    if (unit == Unit::weekOfYear)
        step = UCAL_WEEK_OF_YEAR;
    else if (unit == Unit::month)
        step = UCAL_MONTH;
    else if (unit == Unit::year)
        step = UCAL_YEAR;
    cal.add(step, 1, status);
    const UDate end = cal.getTime(status);
    if (U_FAILURE(status)) return std::nullopt;
    return DateInterval{fromUDate(start), fromUDate(end)};
}

DateCalendar::Components DateCalendar::components(Date date) const {
    UErrorCode status = U_ZERO_ERROR;
    icu::Calendar& cal = *calendar_;
    cal.setTime(toUDate(date), status);
    Components c{};
    c.year = cal.get(UCAL_EXTENDED_YEAR, status);
    c.month = cal.get(UCAL_MONTH, status) + 1;
    c.day = cal.get(UCAL_DATE, status);
    c.hour = cal.get(UCAL_HOUR_OF_DAY, status);
    c.minute = cal.get(UCAL_MINUTE, status);
    c.second = cal.get(UCAL_SECOND, status);
    c.weekday = cal.get(UCAL_DAY_OF_WEEK, status);
    return c;
}

std::optional<Date> DateCalendar::date(int year, int month, int day, int hour, int minute, int second) const {
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour < 0 || hour > 23 || minute < 0 || minute > 59 ||
        second < 0 || second > 59)
        return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    icu::Calendar& cal = *calendar_;
    cal.clear();
    cal.set(UCAL_EXTENDED_YEAR, year);
    cal.set(UCAL_MONTH, month - 1);
    cal.set(UCAL_DATE, day);
    cal.set(UCAL_HOUR_OF_DAY, hour);
    cal.set(UCAL_MINUTE, minute);
    cal.set(UCAL_SECOND, second);
    const UDate result = cal.getTime(status);
    if (U_FAILURE(status)) return std::nullopt;
    const auto check = components(fromUDate(result));
    if (check.month != month || check.day != day) return std::nullopt;
    return fromUDate(result);
}

} // namespace tavelo
