#include "services/LocalCalendarService.h"
#include "support/Async.h"
#include "support/JsonWriter.h"
#include "support/SqliteFile.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <memory>

using namespace tavelo;
using tavelo::testing::ExclusiveLock;
using tavelo::testing::SqliteFile;

inline void PrintTo(const QString& text, std::ostream* os) { *os << '"' << text.toStdString() << '"'; }

namespace {

const Date kNow = Date::fromUnixSeconds(1767258000.25); // backups carry 1767258000250
const Date kDay = Date::fromUnixSeconds(1767571200);     // 2026-01-05T00:00:00Z
const UUID kCalA = UUID::literal("0A000000-0000-4000-8000-000000000001");
const UUID kCalB = UUID::literal("0B000000-0000-4000-8000-000000000002");

CalendarEvent event(const char* title, double fromHour, double toHour, UUID calendar = kCalA, UUID group = UUID::random()) {
    return CalendarEvent{.id = UUID::random(), .groupID = group, .title = QString::fromUtf8(title),
                         .start = kDay.addingSeconds(fromHour * 3600), .end = kDay.addingSeconds(toHour * 3600),
                         .calendarID = calendar};
}

// Events in an order no sort would produce, most optional fields set, and
// `extra` plain events after them (enough to make the reader split its work).
AppSnapshot sample(int extra = 0) {
    AppSnapshot s;
    s.accounts.push_back({UUID::random(), "仕事", "a@example.com", AccountKind::work, "#123456", true, kDay, "sub"});
    s.calendars.push_back({kCalA, s.accounts[0].id, "Work", "#2F6FEB", true, true, "primary", "Asia/Tokyo"});
    s.calendars.push_back({kCalB, std::nullopt, "Local", "#6558D9", true, false, std::nullopt, std::nullopt});
    const CalendarEvent rich{
        .id = UUID::random(), .groupID = UUID::random(), .sourceEventID = UUID::random(), .title = "週次定例 \"weekly\"",
        .start = kDay, .end = kDay.addingSeconds(3600), .recurrence = EventRecurrence::weekly, .calendarID = kCalA,
        .notes = "line 1\nline 2", .guests = {{UUID::random(), "山田", "y@example.com", GuestStatus::tentative}},
        .notifications = {10, 60}, .meetURL = CalendarEvent::pendingMeetURL(), .googleEventID = "g1",
        .googleETag = "\"3300\"", .googleUpdatedAt = kDay};
    s.events = {event("Zulu", 13, 14), rich, event("Alpha", 8, 9, kCalB)};
    for (int i = 0; i < extra; ++i) s.events.push_back(event("bulk", 24 - i % 24, 25 - i % 24, i % 2 ? kCalA : kCalB));
    s.googleSyncStates.push_back({kCalA, "token", kDay});
    return s;
}

QByteArray readBytes(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}
void writeBytes(const QString& path, const QByteArray& bytes) {
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size());
}

class LocalCalendarServiceTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    QString path = dir.filePath("state.json");
    AppSnapshot seed = AppSnapshot(2, {}, {CalendarSource::tavelo()}, {}, {}, {}, {});

    std::unique_ptr<LocalCalendarService> makeService(const QString& at) {
        return std::make_unique<LocalCalendarService>(at, [this] { return seed; }, [] { return kNow; });
    }
    std::unique_ptr<LocalCalendarService> service = makeService(path);

    // What a new service finds on disk; a recovery there is a failure.
    AppSnapshot reload() {
        auto result = syncWait(makeService(path)->load());
        if (result.warning) ADD_FAILURE() << result.warning->errorDescription()->toStdString();
        return result.snapshot;
    }
    QStringList otherFiles() const {
        auto names = QDir(dir.path()).entryList(QDir::Files | QDir::Hidden);
        names.removeAll("state.json");
        return names;
    }
    void save(const AppSnapshot& s) { syncWait(service->save(s)); }
};

TEST_F(LocalCalendarServiceTest, MissingFileGivesTheSeedAndTheFirstSaveADatabaseThatReadsBackInOrder) {
    const auto missing = syncWait(service->load());
    EXPECT_EQ(missing.snapshot, seed);
    EXPECT_FALSE(missing.warning);
    EXPECT_TRUE(QDir(dir.path()).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));

    for (int extra : {0, 1000}) {
        auto snapshot = sample(extra);
        snapshot.version = 1;
        save(snapshot);
        snapshot.version = 2;
        EXPECT_TRUE(otherFiles().isEmpty()) << otherFiles().join(' ').toStdString();
        EXPECT_EQ(service->cachedSnapshot(), snapshot);
        EXPECT_EQ(reload(), snapshot);
    }
}

// --- damaged or newer files: moved aside byte for byte, the seed starts ---------

struct Damage {
    const char* name;
    std::function<void(const QString& path)> make;
    std::optional<std::int64_t> unsupportedVersion; // nothing: corrupt
};
void PrintTo(const Damage& damage, std::ostream* os) { *os << damage.name; }

std::function<void(const QString&)> text(QByteArray bytes) {
    return [bytes](const QString& path) { writeBytes(path, bytes); };
}
std::function<void(const QString&)> jsonWith(QByteArray from, QByteArray to) {
    return [=](const QString& path) {
        auto json = QByteArray::fromStdString(encodeJson(sample()));
        ASSERT_GT(json.count(from), 0);
        writeBytes(path, json.replace(from, to));
    };
}
std::function<void(const QString&)> databaseWith(std::string sql, int extra = 0) {
    return [=](const QString& path) {
        syncWait(LocalCalendarService(path).save(sample(extra)));
        ASSERT_EQ(SqliteFile(path).exec(sql), SQLITE_OK);
    };
}
// Same count as the order, but one event twice and another missing.
const std::string kSameEventTwice = "UPDATE events SET payload = (SELECT payload FROM events ORDER BY rowid LIMIT 1) "
                                    "WHERE rowid = (SELECT max(rowid) FROM events)";

class DamagedFileTest : public LocalCalendarServiceTest, public ::testing::WithParamInterface<Damage> {};

TEST_P(DamagedFileTest, IsMovedToABackupAndTheSeedIsUsed) {
    GetParam().make(path);
    const auto original = readBytes(path);
    const auto result = syncWait(service->load());
    EXPECT_EQ(result.snapshot, seed);
    EXPECT_EQ(service->cachedSnapshot(), seed);
    EXPECT_FALSE(QFile::exists(path));
    const auto backups = otherFiles();
    ASSERT_EQ(backups.size(), 1);
    const auto version = GetParam().unsupportedVersion;
    EXPECT_TRUE(QRegularExpression(QString("^state\\.1767258000250\\.[0-9A-F-]{36}\\.%1\\.json$").arg(version ? "unsupported" : "corrupt"))
                    .match(backups[0]).hasMatch()) << backups[0].toStdString();
    const QString backup = dir.filePath(backups[0]);
    EXPECT_EQ(readBytes(backup), original);
    ASSERT_TRUE(result.warning);
    EXPECT_EQ(result.warning->errorDescription(),
              version ? QString("新しい形式（バージョン %1）のデータはこの版では開けません。空の状態で開始し、元のデータは %2 に退避しました。")
                            .arg(*version).arg(backup)
                      : QString("保存済みのデータを復元できなかったため、空の状態で開始しました。元のデータは %1 に退避しました。").arg(backup));
}

INSTANTIATE_TEST_SUITE_P(
    LocalCalendarService, DamagedFileTest,
    ::testing::Values(
        Damage{"NotJson", text("not json at all {"), std::nullopt},
        Damage{"EmptyFile", text(""), std::nullopt},
        Damage{"UnknownEnumString", jsonWith("\"kind\":\"event\"", "\"kind\":\"meeting\""), std::nullopt},
        Damage{"NewerJson", text("{\"version\":3,\"accounts\":\"never decoded\"}"), 3},
        Damage{"HeaderWithoutDatabase", text(QByteArray("SQLite format 3", 16) + QByteArray(600, 'x')), std::nullopt},
        Damage{"NewerDatabase", databaseWith("UPDATE metadata SET payload = replace(payload, '{\"version\":2', '{\"version\":3')"), 3},
        Damage{"NoMetadataRow", databaseWith("DELETE FROM metadata"), std::nullopt},
        Damage{"ExtraEventRow", databaseWith("INSERT INTO events VALUES('" + UUID::random().toStdString() + "', '" +
                                             encodeJson(event("stray", 1, 2)) + "')"), std::nullopt},
        Damage{"SameEventInTwoRows", databaseWith(kSameEventTwice), std::nullopt},
        Damage{"RowKeyDiffersFromItsEvent",
               databaseWith("UPDATE events SET id = '" + UUID::random().toStdString() +
                            "' WHERE rowid = (SELECT rowid FROM events LIMIT 1 OFFSET 1)"),
               std::nullopt},
        Damage{"UnreadableRowInALargeFile",
               databaseWith("UPDATE events SET payload = '{' WHERE rowid = (SELECT rowid FROM events LIMIT 1 OFFSET 700)", 1000),
               std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

// --- environmental failures: an error, the file and the cache untouched ---------

TEST_F(LocalCalendarServiceTest, LockedDatabaseFailsWithoutTouchingFileOrCache) {
    const auto before = sample();
    save(before);
    const auto bytes = readBytes(path);
    auto after = before;
    after.events[1].title = "changed";
    {
        ExclusiveLock lock(path);
        EXPECT_THROW(syncWait(service->save(after)), SQLitePersistenceError);
        auto fresh = makeService(path);
        EXPECT_THROW(syncWait(fresh->load()), SQLitePersistenceError);
        EXPECT_FALSE(fresh->cachedSnapshot());
    }
    EXPECT_EQ(readBytes(path), bytes);
    EXPECT_TRUE(otherFiles().isEmpty());
    EXPECT_EQ(service->cachedSnapshot(), before);
    save(after);
    EXPECT_EQ(reload(), after);
}

TEST_F(LocalCalendarServiceTest, FileSystemFailuresLeaveTheFileAndTheCache) {
    writeBytes(dir.filePath("plain"), "x");
    auto blocked = makeService(dir.filePath("plain/state.json")); // below a regular file
    syncWait(blocked->load());
    EXPECT_THROW(syncWait(blocked->save(sample())), FileSystemError);
    EXPECT_EQ(blocked->cachedSnapshot(), seed);
}

// --- event operations ---------------------------------------------------------------

// The operations edit the cached list in place and write only the rows of the
// events they touched; a full save of the same result must leave the same
// file, and a failed operation must leave the file and the cache as they were.
TEST_F(LocalCalendarServiceTest, EventOperationsWriteWhatAFullSaveWritesAndUndoFailures) {
    const UUID g = UUID::random(), h = UUID::random();
    const auto a1 = event("a1", 1, 2, kCalA, g), a2 = event("a2", 3, 4, kCalB, g), a3 = event("a3", 5, 6, kCalA, g);
    const auto b = event("b", 7, 8, kCalB, h), x = event("x", 9, 10), y = event("y", 10, 11, kCalB, g);
    auto before = sample(20);
    before.events.insert(before.events.begin() + 1, a1); // the group spread over the list
    before.events.insert(before.events.begin() + 12, a2);
    before.events.push_back(a3);
    before.events.push_back(b);
    auto a1Moved = a1;
    a1Moved.title = "a1 moved";
    auto taken = x;
    taken.id = before.events[5].id; // an id that stays outside the group

    using Run = std::function<QCoro::Task<std::vector<CalendarEvent>>(LocalCalendarService&)>;
    struct Case {
        const char* name;
        Run run;
        std::function<void(std::vector<CalendarEvent>&)> change;
        bool refused = false; // an id used twice
    };
    const auto replace = [&](std::vector<CalendarEvent> with) {
        return [=](std::vector<CalendarEvent>& events) {
            const auto at = std::find_if(events.begin(), events.end(), [&](auto& e) { return e.groupID == g; }) - events.begin();
            std::erase_if(events, [&](auto& e) { return e.groupID == g; });
            events.insert(events.begin() + std::min<std::ptrdiff_t>(at, std::ssize(events)), with.begin(), with.end());
        };
    };
    const std::vector<Case> cases = {
        {"create", [&](auto& s) { return s.createEvents({x, y}); }, [&](auto& events) { events.insert(events.end(), {x, y}); }},
        {"update: kept, changed, new, gone", [&](auto& s) { return s.updateEvents(g, {a2, y, a1Moved}); }, replace({a2, y, a1Moved})},
        {"delete", [&](auto& s) { return s.deleteEvents(g); }, replace({})},
        {"create: id in use", [&](auto& s) { return s.createEvents({x, taken}); },
         [&](auto& events) { events.insert(events.end(), {x, taken}); }, true},
        {"update: id outside the group", [&](auto& s) { return s.updateEvents(g, {a1, taken}); }, replace({a1, taken}), true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // Each store in a directory of its own: a store locks its directory.
        const QString fastPath = dir.filePath(QString("fast-%1/state.json").arg(&c - cases.data()));
        const QString fullPath = dir.filePath(QString("full-%1/state.json").arg(&c - cases.data()));
        auto fast = makeService(fastPath), full = makeService(fullPath);
        syncWait(fast->save(before));
        syncWait(full->save(before));
        for (const auto& file : {fastPath, fullPath}) // a rewritten row loses its leading space
            ASSERT_EQ(SqliteFile(file).exec("UPDATE events SET payload = ' ' || payload"), SQLITE_OK);
        const auto bytes = readBytes(fastPath);
        {
            ExclusiveLock lock(fastPath);
            EXPECT_THROW(syncWait(c.run(*fast)), SQLitePersistenceError);
        }
        EXPECT_EQ(readBytes(fastPath), bytes);
        EXPECT_EQ(fast->cachedSnapshot(), before);

        auto expected = before;
        c.change(expected.events);
        if (c.refused) {
            EXPECT_THROW(syncWait(c.run(*fast)), SQLitePersistenceError);
            EXPECT_THROW(syncWait(full->save(expected)), SQLitePersistenceError);
            EXPECT_EQ(fast->cachedSnapshot(), before);
            EXPECT_EQ(readBytes(fastPath), bytes);
            continue;
        }
        EXPECT_EQ(syncWait(c.run(*fast)), expected.events);
        EXPECT_EQ(fast->cachedSnapshot(), expected);
        syncWait(full->save(expected));
        const auto dump = [](const QString& file) {
            SqliteFile db(file);
            return db.rows("SELECT payload FROM metadata") + db.rows("SELECT id, payload FROM events ORDER BY id");
        };
        EXPECT_EQ(dump(fastPath), dump(fullPath));
    }
}

} // namespace
