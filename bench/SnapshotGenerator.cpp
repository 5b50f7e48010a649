#include "SnapshotGenerator.h"

#include <array>
#include <random>
#include <string_view>

namespace tavelo::bench {

namespace {

class Generator {
public:
    explicit Generator(std::uint64_t seed) : random_(seed) {}

    UUID uuid() {
        UUID::Bytes bytes;
        const std::uint64_t a = random_(), b = random_();
        for (int i = 0; i < 8; ++i) {
            bytes[i] = static_cast<std::uint8_t>(a >> (8 * i));
            bytes[8 + i] = static_cast<std::uint8_t>(b >> (8 * i));
        }
        bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
        bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
        return UUID(bytes);
    }
    std::uint64_t below(std::uint64_t n) { return random_() % n; }
    bool chance(int percent) { return below(100) < static_cast<std::uint64_t>(percent); }
    template <class T, std::size_t N>
    const T& pick(const std::array<T, N>& values) { return values[below(N)]; }

    QString token(int length) {
        static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
        QString out(length, QChar(u'a'));
        for (int i = 0; i < length; ++i) out[i] = QChar(kAlphabet[below(36)]);
        return out;
    }

private:
    std::mt19937_64 random_;
};

constexpr std::array<std::string_view, 12> kTitles = {
    "週次定例ミーティング", "1on1: 山田さん", "Design review", "プロジェクト計画の確認", "Lunch with Alex",
    "歯医者",               "Sprint planning", "顧客訪問（大阪）",     "Quarterly business review",
    "採用面接 — バックエンド", "Yoga",         "家族で夕食",
};
constexpr std::array<std::string_view, 6> kLocations = {
    "", "東京本社 12F 会議室A", "Zoom", "Shibuya Stream 5F", "Café Mame, Nakameguro", "自宅",
};
constexpr std::array<std::string_view, 5> kNotes = {
    "",
    "議題:\n1. 先週のふりかえり\n2. 今週の優先事項\n3. その他",
    "Please read the design doc before the meeting. Bring questions about the sync engine and the busy-block "
    "generator.",
    "持ち物: ノートPC、名刺。受付で「Tavelo の件」とお伝えください。",
    "Agenda: roadmap, hiring, budget.\n— 資料は共有ドライブにあります。",
};
constexpr std::array<std::string_view, 8> kGuestNames = {
    "山田 太郎", "佐藤 花子", "Alex Johnson", "Maria García", "鈴木 一郎", "Chen Wei", "高橋 美咲", "Sam Lee",
};

} // namespace

AppSnapshot generateSnapshot(std::size_t eventCount, std::uint64_t seed) {
    Generator g(seed);
    const Date firstDay = Date::fromUnixSeconds(1704067200); // 2024-01-01T00:00:00Z

    std::vector<Account> accounts = {
        {g.uuid(), "Work", "taro.yamada@example.co.jp", AccountKind::work, "#2F6FEB", true,
         firstDay.addingSeconds(86400.0 * 700), "109876543210987654321"},
        {g.uuid(), "Personal", "taro@example.com", AccountKind::personal, "#E5534B", true,
         firstDay.addingSeconds(86400.0 * 700), "123456789012345678901"},
        {g.uuid(), "家族", "family@example.com", AccountKind::family, "#3FB950", true, std::nullopt, std::nullopt},
    };

    std::vector<CalendarSource> calendars = {
        CalendarSource::tavelo(),
        {g.uuid(), accounts[0].id, "Work", "#2F6FEB", true, true, "taro.yamada@example.co.jp", "Asia/Tokyo"},
        {g.uuid(), accounts[0].id, "チーム共有", "#8957E5", true, false, "c_team@group.calendar.google.com", "Asia/Tokyo"},
        {g.uuid(), accounts[1].id, "Personal", "#E5534B", true, true, "taro@example.com", "Asia/Tokyo"},
        {g.uuid(), accounts[1].id, "Holidays in Japan", "#D29922", false, false,
         "ja.japanese#holiday@group.v.calendar.google.com", "Asia/Tokyo"},
        {g.uuid(), accounts[2].id, "家族の予定", "#3FB950", true, true, std::nullopt, std::nullopt},
    };

    std::vector<Tag> tags;
    const std::array<std::string_view, 6> tagNames = {"会議", "Focus", "採用", "Customer", "健康", "家族"};
    for (std::size_t i = 0; i < tagNames.size(); ++i) {
        Tag tag{g.uuid(), QString::fromUtf8(tagNames[i].data(), static_cast<qsizetype>(tagNames[i].size())),
                "#57606A", static_cast<int>(i), i % 2 ? std::optional<int>(600) : std::nullopt, i % 2 == 1, {}};
        tag.rules.push_back({g.uuid(), TagRuleCondition::titleContains(tag.name)});
        if (i < calendars.size()) tag.rules.push_back({g.uuid(), TagRuleCondition::calendarEquals(calendars[i].id)});
        tags.push_back(std::move(tag));
    }

    std::vector<GoogleCalendarSyncState> syncStates;
    for (const auto& calendar : calendars)
        if (calendar.googleCalendarID)
            syncStates.push_back({calendar.id, "CPDAlvWDx" + g.token(40), firstDay.addingSeconds(86400.0 * 700)});

    std::vector<CalendarEvent> events;
    events.reserve(eventCount);
    while (events.size() < eventCount) {
        const auto& calendar = calendars[g.below(calendars.size())];
        const bool google = calendar.googleCalendarID.has_value();
        const bool allDay = g.chance(8);
        const Date start = firstDay.addingSeconds(86400.0 * static_cast<double>(g.below(1100)) +
                                                  (allDay ? 0.0 : 1800.0 * static_cast<double>(14 + g.below(26))));
        const double duration = allDay ? 86400.0 : 1800.0 * static_cast<double>(1 + g.below(6));

        CalendarEvent event;
        event.id = g.uuid();
        event.groupID = g.uuid();
        event.kind = g.chance(10) ? EventKind::task : EventKind::event;
        const auto title = g.pick(kTitles);
        event.title = QString::fromUtf8(title.data(), static_cast<qsizetype>(title.size()));
        event.start = start;
        event.end = start.addingSeconds(duration);
        event.isAllDay = allDay;
        if (g.chance(15)) event.recurrence = static_cast<EventRecurrence>(g.below(3));
        event.calendarID = calendar.id;
        if (g.chance(40)) event.tagID = tags[g.below(tags.size())].id;
        const auto location = g.pick(kLocations);
        event.location = QString::fromUtf8(location.data(), static_cast<qsizetype>(location.size()));
        const auto notes = g.pick(kNotes);
        event.notes = QString::fromUtf8(notes.data(), static_cast<qsizetype>(notes.size()));
        for (std::uint64_t i = 0, n = g.below(5); i < n; ++i) {
            const auto name = g.pick(kGuestNames);
            event.guests.push_back({g.uuid(), QString::fromUtf8(name.data(), static_cast<qsizetype>(name.size())),
                                    QStringLiteral("guest%1@example.com").arg(g.below(500)),
                                    static_cast<GuestStatus>(g.below(4))});
        }
        if (!allDay) event.notifications = g.chance(50) ? std::vector<int>{10} : std::vector<int>{10, 60};
        if (google && g.chance(30))
            event.meetURL = QUrl(QStringLiteral("https://meet.google.com/%1-%2-%3").arg(g.token(3), g.token(4), g.token(3)));
        event.availability = g.chance(85) ? Availability::busy : Availability::free;
        event.visibility = g.chance(90) ? EventVisibility::normal : EventVisibility::privateDetails;
        event.isCompleted = event.kind == EventKind::task && g.chance(50);
        if (google) {
            event.externalUID = g.token(26) + QStringLiteral("@google.com");
            event.googleEventID = g.token(26);
            event.googleETag = QStringLiteral("\"33%1\"").arg(g.below(1000000000000ULL), 13, 10, QChar(u'0'));
            event.googleUpdatedAt = start.addingSeconds(-86400.0 * static_cast<double>(1 + g.below(30)));
        }
        const bool mirror = event.availability == Availability::busy && google && g.chance(20);
        events.push_back(event);

        // A busy block on another calendar that receives them.
        if (mirror && events.size() < eventCount) {
            const auto& target = calendars[1 + (g.below(2) ? 2 : 0)];
            if (target.id == event.calendarID) continue;
            CalendarEvent block;
            block.id = g.uuid();
            block.groupID = g.uuid();
            block.sourceEventID = event.id;
            block.title = QStringLiteral("予定あり");
            block.start = event.start;
            block.end = event.end;
            block.isAllDay = event.isAllDay;
            block.calendarID = target.id;
            block.availability = Availability::busy;
            block.visibility = EventVisibility::privateDetails;
            block.isGeneratedBusyBlock = true;
            block.googleEventID = g.token(26);
            block.googleETag = QStringLiteral("\"33%1\"").arg(g.below(1000000000000ULL), 13, 10, QChar(u'0'));
            events.push_back(std::move(block));
        }
    }

    return AppSnapshot(AppSnapshot::kCurrentVersion, std::move(accounts), std::move(calendars), std::move(events),
                       std::move(tags), AppPreferences::defaults(), std::move(syncStates));
}

} // namespace tavelo::bench
