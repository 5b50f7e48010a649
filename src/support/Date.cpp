#include "support/Date.h"

#include <chrono>
#include <cmath>

namespace tavelo {

namespace {

// Howard Hinnant's civil-date algorithms, valid over the whole proleptic
// Gregorian calendar.
constexpr std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

constexpr Civil civilFromDays(std::int64_t z) {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t y = static_cast<std::int64_t>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp < 10 ? mp + 3 : mp - 9;
    return {y + (m <= 2), m, d};
}

constexpr bool isLeap(std::int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

constexpr unsigned daysInMonth(std::int64_t y, unsigned m) {
    constexpr unsigned table[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeap(y) ? 29 : table[m - 1];
}

bool readDigits(std::string_view text, std::size_t pos, std::size_t count, unsigned& out) {
    unsigned value = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        const char c = text[i];
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    out = value;
    return true;
}

void appendDigits(std::string& out, std::int64_t value, int width) {
    char buffer[24];
    int n = 0;
    do {
        buffer[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value > 0);
    for (int i = n; i < width; ++i) out.push_back('0');
    while (n > 0) out.push_back(buffer[--n]);
}

} // namespace

Date Date::now() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return fromUnixSeconds(std::chrono::duration<double>(since).count());
}

std::int64_t Date::unixMilliseconds() const {
    return static_cast<std::int64_t>(std::trunc(unixSeconds() * 1000.0));
}

std::string Date::isoString() const {
    const auto whole = static_cast<std::int64_t>(std::floor(unixSeconds()));
    std::int64_t days = whole / 86400;
    std::int64_t rest = whole % 86400;
    if (rest < 0) {
        rest += 86400;
        days -= 1;
    }
    const Civil c = civilFromDays(days);
    std::string out;
    out.reserve(20);
    if (c.year < 0) out.push_back('-');
    appendDigits(out, c.year < 0 ? -c.year : c.year, 4);
    out.push_back('-');
    appendDigits(out, c.month, 2);
    out.push_back('-');
    appendDigits(out, c.day, 2);
    out.push_back('T');
    appendDigits(out, rest / 3600, 2);
    out.push_back(':');
    appendDigits(out, rest / 60 % 60, 2);
    out.push_back(':');
    appendDigits(out, rest % 60, 2);
    out.push_back('Z');
    return out;
}

std::optional<Date> Date::fromIsoString(std::string_view text) {
    // 0123456789012345678 9
    // YYYY-MM-DDTHH:MM:SS Z
    if (text.size() != 20) return std::nullopt;
    if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':' ||
        text[19] != 'Z')
        return std::nullopt;
    unsigned year, month, day, hour, minute, second;
    if (!readDigits(text, 0, 4, year) || !readDigits(text, 5, 2, month) || !readDigits(text, 8, 2, day) ||
        !readDigits(text, 11, 2, hour) || !readDigits(text, 14, 2, minute) || !readDigits(text, 17, 2, second))
        return std::nullopt;
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 || minute > 59 ||
        second > 59)
        return std::nullopt;
    const std::int64_t days = daysFromCivil(year, month, day);
    const double unix = static_cast<double>(days * 86400 + hour * 3600 + minute * 60 + second);
    return fromUnixSeconds(unix);
}

} // namespace tavelo
