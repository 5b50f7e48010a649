// The state file's format pinned byte for byte: the schema, the metadata row
// and every event row of a fixed snapshot, and the old plain-JSON format that
// is still migrated on load.

#include "services/LocalCalendarService.h"
#include "support/Async.h"
#include "support/Golden.h"
#include "support/JsonWriter.h"
#include "support/SqliteFile.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace tavelo;

namespace {

UUID fixed(int n) {
    UUID::Bytes bytes{};
    bytes[0] = 0xA0;
    bytes[6] = 0x40;
    bytes[8] = 0x80;
    bytes[15] = static_cast<std::uint8_t>(n);
    return UUID(bytes);
}

// Every kind of field set at least once.
AppSnapshot fixedSnapshot() {
    const Date day = Date::fromUnixSeconds(1767571200); // 2026-01-05T00:00:00Z
    AppSnapshot s = AppSnapshot::empty();
    s.accounts.push_back(Account{.id = fixed(1), .name = "仕事", .email = "a@example.com", .kind = AccountKind::work,
                                 .colorHex = "#123456", .isConnected = true, .lastSync = day, .googleSubject = "sub"});
    s.calendars.push_back(CalendarSource{.id = fixed(2), .accountID = fixed(1), .name = "Work", .colorHex = "#2F6FEB",
                                         .isVisible = true, .receivesBusyBlocks = true, .googleCalendarID = "primary",
                                         .googleTimeZoneIdentifier = "Asia/Tokyo"});
    s.calendars.push_back(CalendarSource::tavelo());
    s.tags.push_back(Tag{.id = fixed(3), .name = "Deep work", .sortOrder = 0});
    const CalendarEvent rich{
        .id = fixed(10), .groupID = fixed(11), .sourceEventID = fixed(12), .title = "週次定例 \"weekly\"",
        .start = day.addingSeconds(9 * 3600), .end = day.addingSeconds(10 * 3600), .recurrence = EventRecurrence::weekly,
        .calendarID = fixed(2), .tagID = fixed(3), .notes = "line 1\nline 2\t✓",
        .guests = {{fixed(13), "山田", "y@example.com", GuestStatus::tentative}}, .notifications = {10, 60},
        .meetURL = CalendarEvent::pendingMeetURL(), .googleEventID = "g1", .googleETag = "\"3300\"", .googleUpdatedAt = day};
    const CalendarEvent block{.id = fixed(20), .groupID = fixed(11), .title = "予定あり", .start = rich.start, .end = rich.end,
                              .calendarID = CalendarSource::tavelo().id, .isGeneratedBusyBlock = true};
    const CalendarEvent task{.id = fixed(30), .groupID = fixed(31), .kind = EventKind::task, .title = "Report", .start = day,
                             .end = day.addingSeconds(86400), .isAllDay = true, .calendarID = CalendarSource::tavelo().id,
                             .isCompleted = true};
    s.events = {task, rich, block}; // an order no sort would give
    s.googleSyncStates.push_back({fixed(2), "token", day});
    return s;
}

QByteArray rows(const QString& path) {
    tavelo::testing::SqliteFile db(path);
    return db.rows("SELECT sql FROM sqlite_master ORDER BY name") + db.rows("SELECT id, payload FROM metadata") +
           db.rows("SELECT id, payload FROM events ORDER BY id");
}

TEST(StateFileGoldenTest, TheDatabaseAndTheOldJsonFormatKeepTheirBytes) {
    QTemporaryDir dir;
    const QString path = dir.filePath("state.json");
    const AppSnapshot snapshot = fixedSnapshot();
    {
        LocalCalendarService service(path);
        syncWait(service.save(snapshot));
    }
    tavelo::testing::expectGolden("state-database-rows.txt", rows(path));
    EXPECT_EQ(syncWait(LocalCalendarService(path).load()).snapshot, snapshot);

    // The old format: one JSON document of version 1, read and migrated as it
    // stands, the original kept byte for byte beside the new database.
    tavelo::testing::expectGolden("state-legacy.json", QByteArray::fromStdString(encodeJson(snapshot)));
    QTemporaryDir legacyDir;
    const QString legacy = legacyDir.filePath("state.json");
    const QByteArray original = tavelo::testing::goldenBytes("state-legacy.json").replace("{\"version\":2,", "{\"version\":1,");
    {
        QFile file(legacy);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(original) == original.size());
    }
    const auto migrated = syncWait(LocalCalendarService(legacy).load());
    EXPECT_FALSE(migrated.warning);
    EXPECT_EQ(migrated.snapshot, snapshot);
    EXPECT_EQ(rows(legacy), rows(path)) << "migration writes what a save writes";
    const QStringList backups = QDir(legacyDir.path()).entryList(QDir::Files | QDir::Hidden);
    ASSERT_EQ(backups.size(), 2) << backups.join(' ').toStdString();
    EXPECT_TRUE(QRegularExpression("^state\\.[0-9]+\\.[0-9A-F-]{36}\\.legacy\\.json$").match(backups[0]).hasMatch())
        << backups[0].toStdString();
    QFile backup(legacyDir.filePath(backups[0]));
    ASSERT_TRUE(backup.open(QIODevice::ReadOnly));
    EXPECT_EQ(backup.readAll(), original);
}

} // namespace
