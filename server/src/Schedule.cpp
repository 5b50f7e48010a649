#include "Schedule.h"

#include "JsonUtil.h"

#include <unicode/brkiter.h>
#include <unicode/gregocal.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>

namespace tavelo::cloud {

namespace {

bool isBlank(const std::string& text) {
    const icu::UnicodeString u = icu::UnicodeString::fromUTF8(text);
    for (int32_t i = 0; i < u.length();) {
        const UChar32 c = u.char32At(i);
        if (!u_isUWhiteSpace(c)) return false;
        i += U16_LENGTH(c);
    }
    return true;
}

// Characters as the user sees them (grapheme clusters).
std::int64_t visibleLength(const std::string& text) {
    const icu::UnicodeString u = icu::UnicodeString::fromUTF8(text);
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> it(icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) return u.length();
    it->setText(u);
    std::int64_t count = 0;
    it->first();
    while (it->next() != icu::BreakIterator::DONE) ++count;
    return count;
}

// A text of at most `limit` bytes cannot have more than `limit` characters.
bool exceeds(const std::string& text, std::int64_t limit) {
    return static_cast<std::int64_t>(text.size()) > limit && visibleLength(text) > limit;
}

bool isKnownTimeZone(const std::string& id) {
    if (id.empty()) return false;
    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(id)));
    if (!zone) return false;
    icu::UnicodeString resolved;
    zone->getID(resolved);
    return resolved != icu::UnicodeString(UCAL_UNKNOWN_ZONE_ID);
}

std::optional<UCalendarDateFields> fieldOf(const std::optional<std::string>& recurrence) {
    if (!recurrence) return std::nullopt;
    if (*recurrence == "daily") return UCAL_DATE;
    if (*recurrence == "weekly") return UCAL_WEEK_OF_YEAR;
    if (*recurrence == "monthly") return UCAL_MONTH;
    return std::nullopt;
}

class ZoneCalendar {
public:
    explicit ZoneCalendar(const std::string& zoneID) {
        UErrorCode status = U_ZERO_ERROR;
        calendar_ = std::make_unique<icu::GregorianCalendar>(
            icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(zoneID)), icu::Locale("en_US_POSIX"), status);
        if (U_FAILURE(status)) throw std::runtime_error("cannot create a Gregorian calendar");
        calendar_->setGregorianChange(-8.64e15, status);
        calendar_->setLenient(true);
    }
    std::optional<double> adding(UCalendarDateFields field, int value, double date) {
        UErrorCode status = U_ZERO_ERROR;
        calendar_->setTime(date * 1000.0, status);
        calendar_->add(field, value, status);
        const UDate result = calendar_->getTime(status);
        if (U_FAILURE(status)) return std::nullopt;
        return result / 1000.0;
    }
    std::optional<int> difference(UCalendarDateFields field, double from, double to) {
        UErrorCode status = U_ZERO_ERROR;
        calendar_->setTime(from * 1000.0, status);
        const int32_t count = calendar_->fieldDifference(to * 1000.0, field, status);
        if (U_FAILURE(status)) return std::nullopt;
        return count;
    }

private:
    std::unique_ptr<icu::GregorianCalendar> calendar_;
};

} // namespace

std::optional<std::string> validationMessage(const ScheduleRecord& s) {
    if (isBlank(s.title)) return "タイトルを入力してください";
    if (isBlank(s.prompt)) return "AIへの指示を入力してください";
    if (exceeds(s.title, 200) || exceeds(s.prompt, 16000)) return "タイトルは200文字、指示は16,000文字以内にしてください";
    if (!isKnownTimeZone(s.timeZoneID)) return "有効なタイムゾーンを選択してください";
    if (!std::isfinite(s.firstRun)) return "実行日時を確認してください";
    if (s.recurrence && !fieldOf(s.recurrence)) return "繰り返しの指定を確認してください";
    return std::nullopt;
}

std::vector<double> occurrences(const ScheduleRecord& s, double start, double end) {
    if (validationMessage(s)) return {};
    if (!(end > s.firstRun)) return {};
    const auto field = fieldOf(s.recurrence);
    if (!field) {
        if (s.firstRun >= start && s.firstRun < end) return {s.firstRun};
        return {};
    }
    if (!std::isfinite(start) || !std::isfinite(end)) return {};
    ZoneCalendar calendar(s.timeZoneID);
    const auto elapsed = calendar.difference(*field, s.firstRun, start);
    if (!elapsed) return {};
    // One unit of slack, so that the first hit is never skipped.
    long long n = std::max(0, *elapsed - 1);
    std::vector<double> dates;
    int stepsBeforeInterval = 0;
    for (; n <= INT_MAX; ++n) {
        // Always from the first run, so that a 31st doesn't drift to the 28th.
        const auto date = calendar.adding(*field, static_cast<int>(n), s.firstRun);
        if (!date || !(*date < end)) break;
        if (*date >= start) dates.push_back(*date);
        else if (++stepsBeforeInterval > 64) break;
    }
    return dates;
}

std::optional<double> nextOccurrence(const ScheduleRecord& s, double after) {
    if (validationMessage(s)) return std::nullopt;
    if (!s.recurrence) return s.firstRun > after ? std::optional(s.firstRun) : std::nullopt;
    // Widen the window until it holds an occurrence; a month and a half
    // always holds one of a monthly schedule.
    const double start = std::nextafter(std::max(after, s.firstRun - 1), INFINITY);
    for (double span : {3.0 * 86400, 16.0 * 86400, 64.0 * 86400}) {
        for (double at : occurrences(s, start, start + span))
            if (at > after) return at;
    }
    return std::nullopt;
}

std::optional<std::string> canonicalUUID(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    std::string out(text);
    for (std::size_t i = 0; i < out.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        char& c = out[i];
        if (dash) {
            if (c != '-') return std::nullopt;
            continue;
        }
        if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return std::nullopt;
    }
    return out;
}

std::variant<ScheduleRecord, std::string> decodeSchedule(const boost::json::object& o) {
    ScheduleRecord s;
    const auto id = json::string(o, "id");
    if (!id) return std::string("id がありません。");
    const auto canonical = canonicalUUID(*id);
    if (!canonical) return std::string("id はUUIDで指定してください。");
    s.id = *canonical;
    const auto title = json::string(o, "title");
    const auto prompt = json::string(o, "prompt");
    const auto zone = json::string(o, "timeZoneID");
    const auto firstRun = json::number(o, "firstRun");
    const auto paused = json::boolean(o, "isPaused");
    if (!title || !prompt || !zone || !firstRun || !paused)
        return std::string("予定の形式が正しくありません。");
    s.title = *title;
    s.prompt = *prompt;
    s.timeZoneID = *zone;
    s.firstRun = *firstRun;
    s.isPaused = *paused;
    if (const auto* recurrence = o.if_contains("recurrence"); recurrence && !recurrence->is_null()) {
        if (!recurrence->is_string()) return std::string("予定の形式が正しくありません。");
        s.recurrence = std::string(recurrence->as_string());
    }
    return s;
}

namespace {
// Whole seconds print as integers; the rest keeps its fraction.
boost::json::value seconds(double value) {
    if (std::isfinite(value) && value == std::floor(value) && std::fabs(value) < 9e15)
        return static_cast<std::int64_t>(value);
    return value;
}
} // namespace

boost::json::object encode(const ScheduleRecord& s) {
    boost::json::object o;
    o["id"] = s.id;
    o["title"] = s.title;
    o["prompt"] = s.prompt;
    o["firstRun"] = seconds(s.firstRun);
    o["timeZoneID"] = s.timeZoneID;
    if (s.recurrence) o["recurrence"] = *s.recurrence;
    o["isPaused"] = s.isPaused;
    return o;
}

boost::json::object encode(const RunRecord& r) {
    boost::json::object o;
    o["id"] = r.id;
    o["scheduleID"] = r.scheduleID;
    o["scheduledAt"] = seconds(r.scheduledAt);
    if (r.startedAt) o["startedAt"] = seconds(*r.startedAt);
    if (r.endedAt) o["endedAt"] = seconds(*r.endedAt);
    o["status"] = r.status;
    o["output"] = r.output;
    if (r.error) o["error"] = *r.error;
    return o;
}

} // namespace tavelo::cloud
