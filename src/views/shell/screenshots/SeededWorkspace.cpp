#include "views/shell/screenshots/SeededWorkspace.h"

#include "support/CalendarMath.h"
#include "support/UUID.h"

#include <random>

namespace tavelo::shell {

namespace {

UUID fixedID(int n) {
    UUID::Bytes bytes{};
    bytes[0] = 0x7a;
    bytes[12] = static_cast<std::uint8_t>(n >> 24);
    bytes[13] = static_cast<std::uint8_t>(n >> 16);
    bytes[14] = static_cast<std::uint8_t>(n >> 8);
    bytes[15] = static_cast<std::uint8_t>(n);
    return UUID(bytes);
}

} // namespace

AppSnapshot seededSnapshot(Date today, const DateCalendar& calendar, int fillerEvents) {
    AppSnapshot s;
    const UUID work = fixedID(1), personal = fixedID(2), family = fixedID(3);
    s.accounts = {
        Account{.id = work, .name = "株式会社タベロ", .email = "sato@tavelo-corp.example", .kind = AccountKind::work,
                .colorHex = "#3B82F6", .isConnected = true, .lastSync = today.addingSeconds(-25 * 60),
                .googleSubject = QStringLiteral("1001")},
        // Its sign-in has expired: it needs reconnecting.
        Account{.id = personal, .name = "個人", .email = "sato.hanako@gmail.example", .kind = AccountKind::personal,
                .colorHex = "#10B981", .isConnected = false, .lastSync = today.addingSeconds(-3 * 86400),
                .googleSubject = QStringLiteral("1002")},
        Account{.id = family, .name = "家族", .email = "", .kind = AccountKind::family, .colorHex = "#F59E0B"},
    };
    const UUID local = CalendarSource::tavelo().id;
    const UUID business = fixedID(11), hiring = fixedID(12), privateCal = fixedID(13), familyCal = fixedID(14),
               holidays = fixedID(15);
    s.calendars = {
        CalendarSource::tavelo(),
        CalendarSource{.id = business, .accountID = work, .name = "業務", .colorHex = "#3B82F6",
                       .googleCalendarID = QStringLiteral("sato@tavelo-corp.example")},
        CalendarSource{.id = hiring, .accountID = work, .name = "採用チーム（共有カレンダー）", .colorHex = "#8B5CF6",
                       .googleCalendarID = QStringLiteral("hiring@group.calendar.google.com")},
        CalendarSource{.id = privateCal, .accountID = personal, .name = "プライベート", .colorHex = "#10B981",
                       .receivesBusyBlocks = true, .googleCalendarID = QStringLiteral("sato.hanako@gmail.example")},
        CalendarSource{.id = familyCal, .accountID = family, .name = "家族の予定", .colorHex = "#F59E0B"},
        CalendarSource{.id = holidays, .accountID = personal, .name = "日本の祝日", .colorHex = "#EF4444",
                       .isVisible = false},
    };
    const UUID develop = fixedID(21), meeting = fixedID(22), recruiting = fixedID(23), learning = fixedID(24);
    s.tags = {
        Tag{.id = develop, .name = "開発", .colorHex = "#3B82F6", .sortOrder = 0, .weeklyTargetMinutes = 900,
            .rules = {TagRule{fixedID(31), TagRuleCondition::titleContains(QStringLiteral("実装"))}}},
        Tag{.id = meeting, .name = "会議", .colorHex = "#8B5CF6", .sortOrder = 1, .weeklyTargetMinutes = 360,
            .warnsWhenExceeded = true,
            .rules = {TagRule{fixedID(32), TagRuleCondition::titleContains(QStringLiteral("定例"))}}},
        Tag{.id = recruiting, .name = "採用", .colorHex = "#EC4899", .sortOrder = 2, .weeklyTargetMinutes = 180,
            .rules = {TagRule{fixedID(33), TagRuleCondition::calendarEquals(hiring)}}},
        Tag{.id = learning, .name = "学習", .colorHex = "#14B8A6", .sortOrder = 3, .weeklyTargetMinutes = 120},
    };

    const auto week = CalendarMath::daysInWeek(today, calendar);
    int next = 1000;
    auto at = [&](int weekOffset, int day, int hour, int minute = 0) {
        const Date first = week.empty() ? today : week[static_cast<std::size_t>(day)];
        const Date base = calendar.adding(DateCalendar::Unit::day, weekOffset * 7, first).value_or(first);
        const auto c = calendar.components(base);
        return calendar.date(c.year, c.month, c.day, hour, minute).value_or(base);
    };
    auto add = [&](const QString& title, Date start, Date end, UUID calendarID,
                   std::optional<UUID> tag = std::nullopt) -> CalendarEvent& {
        CalendarEvent e;
        e.id = fixedID(++next);
        e.groupID = fixedID(100000 + next);
        e.title = title;
        e.start = start;
        e.end = end;
        e.calendarID = calendarID;
        e.tagID = tag;
        s.events.push_back(e);
        return s.events.back();
    };
    // A busy block on the private calendar for an event of the work account.
    auto mirror = [&](const CalendarEvent& source) {
        CalendarEvent block = source;
        block.id = fixedID(++next);
        block.calendarID = privateCal;
        block.title = QStringLiteral("予定あり");
        block.isGeneratedBusyBlock = true;
        block.sourceEventID = source.id;
        block.tagID.reset();
        block.notes.clear();
        s.events.push_back(block);
    };

    for (int w = -1; w <= 0; ++w) {
        // Monday
        mirror(add("週次定例（プロダクト）", at(w, 1, 10), at(w, 1, 11), business, meeting));
        add("API設計の実装", at(w, 1, 13), at(w, 1, 17), business, develop);
        add("ジム", at(w, 1, 19), at(w, 1, 20), privateCal);
        // Tuesday: five overlapping meetings
        mirror(add("四半期事業計画レビューと来期予算配分についての部門横断ディスカッション（第3回）", at(w, 2, 9),
                   at(w, 2, 11, 30), business, meeting));
        add("1on1 田中さん", at(w, 2, 10), at(w, 2, 10, 30), business, meeting);
        add("候補者面接（バックエンド）", at(w, 2, 10, 15), at(w, 2, 11, 15), hiring, recruiting);
        add("障害対応の振り返り", at(w, 2, 10, 30), at(w, 2, 11, 30), business, meeting);
        add("採用基準のすり合わせ", at(w, 2, 10, 45), at(w, 2, 12), hiring, recruiting);
        add("ランチ", at(w, 2, 12), at(w, 2, 13), privateCal);
        add("コードレビュー", at(w, 2, 14), at(w, 2, 16), business, develop);
        // Wednesday
        add("実装：同期エンジン", at(w, 3, 9, 30), at(w, 3, 12), business, develop);
        mirror(add("採用会議", at(w, 3, 15), at(w, 3, 16), hiring, recruiting));
        add("英語レッスン", at(w, 3, 18), at(w, 3, 19), privateCal, learning);
        // Thursday: a meeting on two accounts (shown once) and an evening event
        {
            CalendarEvent& a = add("プロジェクトキックオフ", at(w, 4, 11), at(w, 4, 12), business, meeting);
            a.externalUID = QStringLiteral("kickoff-%1@tavelo").arg(w);
            CalendarEvent& b = add("プロジェクトキックオフ", at(w, 4, 11), at(w, 4, 12), privateCal);
            b.externalUID = QStringLiteral("kickoff-%1@tavelo").arg(w);
        }
        add("実装：週表示のドラッグ", at(w, 4, 13), at(w, 4, 18), business, develop);
        add("保護者会", at(w, 4, 18, 30), at(w, 4, 20), familyCal);
        // Friday
        add("定例（採用）", at(w, 5, 9), at(w, 5, 9, 45), hiring, recruiting);
        add("勉強会：Qt Quick", at(w, 5, 16), at(w, 5, 17, 30), business, learning);
        add("夕食の買い出し", at(w, 5, 17, 30), at(w, 5, 18, 30), familyCal);
        // Saturday
        add("子どもの運動会", at(w, 6, 8), at(w, 6, 13), familyCal);
    }
    // All-day and multi-day events of this week.
    {
        CalendarEvent& trip = add("大阪出張", at(0, 2, 0), at(0, 4, 0), business);
        trip.isAllDay = true;
        CalendarEvent& birthday = add("母の誕生日", at(0, 5, 0), at(0, 6, 0), familyCal);
        birthday.isAllDay = true;
        CalendarEvent& release = add("リリース週間", at(0, 1, 0), at(0, 6, 0), local);
        release.isAllDay = true;
        CalendarEvent& task = add("経費精算を提出", at(0, 3, 0), at(0, 4, 0), local);
        task.isAllDay = true;
        task.kind = EventKind::task;
    }
    // The month around it: a few events on other weeks.
    for (int w = -3; w <= 3; ++w) {
        if (w == 0 || w == -1) continue;
        add("週次定例（プロダクト）", at(w, 1, 10), at(w, 1, 11), business, meeting);
        add("実装", at(w, 2, 13), at(w, 2, 17), business, develop);
        add("ジム", at(w, 3, 19), at(w, 3, 20), privateCal);
        add("採用会議", at(w, 4, 15), at(w, 4, 16), hiring, recruiting);
    }

    if (fillerEvents > 0) {
        std::mt19937 random(20261123);
        const UUID calendars[] = {business, hiring, privateCal, familyCal, local};
        const Date origin = at(-52, 0, 0);
        for (int i = 0; i < fillerEvents; ++i) {
            const int day = static_cast<int>(random() % (104 * 7));
            const int quarter = 28 + static_cast<int>(random() % 48); // 7:00 ... 19:00
            const Date start = origin.addingSeconds(day * 86400.0 + quarter * 900.0);
            add(QStringLiteral("予定 %1").arg(i), start, start.addingSeconds(1800.0 * (1 + random() % 4)),
                calendars[random() % 5]);
        }
    }
    return s;
}

} // namespace tavelo::shell
