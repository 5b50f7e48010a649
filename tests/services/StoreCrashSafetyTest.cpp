// What a killed process, a damaged file or a second store leaves behind, and
// how the next load deals with it: never a corrupt verdict for a file that
// only needs its journal rolled back, repairs that keep the damaged file, and
// one writer per file.

#include "CrashLoopSteps.h"

#include "services/LocalCalendarService.h"
#include "support/Async.h"
#include "support/FailureOf.h"
#include "support/SqliteFile.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>

using namespace tavelo;
using tavelo::testing::failureOf;
using tavelo::testing::quickCheck;
using tavelo::testing::SqliteFile;

namespace {

// `count` events titled "<title> <n>", with notes long enough to fill many pages.
AppSnapshot snapshotWith(int count, const char* title) {
    AppSnapshot s = AppSnapshot::empty();
    for (int i = 0; i < count; ++i) s.events.push_back(crashloop::eventNumbered(10, i, QString("%1 %2").arg(title).arg(i)));
    return s;
}

class StoreCrashSafetyTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    QString path = dir.filePath("state.json");

    QStringList files(const QString& in) const { return QDir(in).entryList(QDir::Files | QDir::Hidden); }
    CalendarLoadResult loadFresh(const QString& at) {
        LocalCalendarService service(at);
        return syncWait(service.load());
    }
};

// A write caught in the middle: the file with some of the transaction's pages
// already in it, and the hot journal that holds the pages as they were. Both
// are copied while the writer still holds its lock, which is what a kill
// leaves on disk.
TEST_F(StoreCrashSafetyTest, AKillInsideAWriteLoadsTheStateBeforeIt) {
    const AppSnapshot before = snapshotWith(400, "before");
    syncWait(LocalCalendarService(path).save(before));

    QTemporaryDir crashed;
    const QString crashedPath = crashed.filePath("state.json");
    {
        SqliteFile writer(path);
        ASSERT_EQ(writer.exec("PRAGMA cache_size = 2"), SQLITE_OK); // spill changed pages into the file
        ASSERT_EQ(writer.exec("BEGIN IMMEDIATE"), SQLITE_OK);
        ASSERT_EQ(writer.exec("UPDATE events SET payload = replace(payload, 'before', 'AFTER!')"), SQLITE_OK);
        ASSERT_TRUE(QFile::exists(path + "-journal"));
        ASSERT_NE(quickCheck(path), "ok") << "the half-written file alone is not a database one can trust";
        ASSERT_TRUE(QFile::copy(path, crashedPath));
        ASSERT_TRUE(QFile::copy(path + "-journal", crashedPath + "-journal"));
    }

    const auto result = loadFresh(crashedPath);
    EXPECT_FALSE(result.warning) << result.warning->errorDescription()->toStdString();
    EXPECT_EQ(result.snapshot.events, before.events);
    EXPECT_EQ(files(crashed.path()), QStringList{"state.json"}) << "no backup, no journal left";
    EXPECT_EQ(quickCheck(crashedPath), "ok");
}

// A locked file is not a damaged one: the load fails and nothing moves, also
// while a hot journal waits to be rolled back.
TEST_F(StoreCrashSafetyTest, ALockedFileWithAHotJournalFailsTheLoadAndStaysInPlace) {
    syncWait(LocalCalendarService(path).save(snapshotWith(50, "kept")));
    SqliteFile holder(path);
    ASSERT_EQ(holder.exec("PRAGMA cache_size = 2"), SQLITE_OK);
    ASSERT_EQ(holder.exec("BEGIN EXCLUSIVE"), SQLITE_OK);
    ASSERT_EQ(holder.exec("UPDATE events SET payload = payload || ' '"), SQLITE_OK);

    LocalCalendarService service(path);
    const auto error = failureOf<SQLitePersistenceError>([&] { syncWait(service.load()); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), SQLitePersistenceError::Kind::operation) << error->detail();
    EXPECT_EQ(files(dir.path()), (QStringList{"state.json", "state.json-journal"}));
}

// Damage that only SQLite's own check sees: the reader never walks the
// primary-key index, so the load succeeds, and the check behind it rewrites
// the file from what was read.
TEST_F(StoreCrashSafetyTest, DamageTheQuickCheckFindsIsRepairedKeepingTheDamagedFile) {
    const AppSnapshot stored = snapshotWith(300, "kept");
    syncWait(LocalCalendarService(path).save(stored));
    const int pageSize = std::stoi(SqliteFile(path).value("PRAGMA page_size"));
    const int indexRoot = std::stoi(SqliteFile(path).value("SELECT rootpage FROM sqlite_master WHERE type = 'index'"));
    ASSERT_GT(indexRoot, 1);
    {
        // An invalid b-tree page type at the top of the index.
        std::fstream file(path.toStdString(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(indexRoot - 1) * pageSize);
        file.put(static_cast<char>(0x01));
    }
    ASSERT_NE(quickCheck(path), "ok");
    const QByteArray damaged = [&] {
        QFile f(path);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }();

    LocalCalendarService service(path);
    const auto result = syncWait(service.load());
    EXPECT_FALSE(result.warning);
    EXPECT_EQ(result.snapshot.events, stored.events);
    syncWait(service.drain());
    EXPECT_EQ(service.repairCount(), 1);
    EXPECT_EQ(quickCheck(path), "ok");

    const auto backups = QDir(dir.path()).entryList({"state.*.damaged.json"}, QDir::Files);
    ASSERT_EQ(backups.size(), 1);
    QFile backup(dir.filePath(backups[0]));
    ASSERT_TRUE(backup.open(QIODevice::ReadOnly));
    EXPECT_EQ(backup.readAll(), damaged);
}

TEST_F(StoreCrashSafetyTest, LeftoverTemporariesOfAnInterruptedReplacementGoAtTheNextLoad) {
    syncWait(LocalCalendarService(path).save(snapshotWith(3, "kept")));
    const QString leftover = dir.filePath(".state.json." + UUID::random().toString() + ".tmp");
    for (const QString& name : {leftover, leftover + "-journal", dir.filePath(".state.json.notes.tmp"),
                                dir.filePath(".other.json." + UUID::random().toString() + ".tmp")}) {
        QFile f(name);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    }
    const auto result = loadFresh(path);
    EXPECT_EQ(result.snapshot.events.size(), 3u);
    EXPECT_FALSE(QFile::exists(leftover));
    EXPECT_FALSE(QFile::exists(leftover + "-journal"));
    EXPECT_TRUE(QFile::exists(dir.filePath(".state.json.notes.tmp"))) << "not a name the replacement makes";
    EXPECT_EQ(files(dir.path()).filter(".other.json.").size(), 1) << "another file's temporaries are not ours";
}

// While one store has the file, a second one may read it but never writes,
// moves or cleans up anything; once the first is gone, the second may.
TEST_F(StoreCrashSafetyTest, OnlyOneStoreAtATimeWritesTheFile) {
    const AppSnapshot stored = snapshotWith(5, "first");
    auto first = std::make_unique<LocalCalendarService>(path);
    syncWait(first->save(stored));
    const QString leftover = dir.filePath(".state.json." + UUID::random().toString() + ".tmp");
    {
        QFile f(leftover);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    }

    LocalCalendarService second(path);
    EXPECT_EQ(syncWait(second.load()).snapshot.events, stored.events);
    EXPECT_TRUE(QFile::exists(leftover)) << "it may belong to the holder's replacement under way";
    auto changed = stored;
    changed.events.pop_back();
    const auto refused = failureOf<FileSystemError>([&] { syncWait(second.save(changed)); });
    ASSERT_TRUE(refused) << "a second store wrote the file";
    EXPECT_EQ(refused->operation(), FileSystemError::Operation::lock);
    EXPECT_THROW(syncWait(second.createEvents(changed.events)), FileSystemError);
    EXPECT_EQ(loadFresh(path).snapshot.events, stored.events);

    // A damaged file is left to its holder too.
    syncWait(first->save(stored));
    ASSERT_EQ(SqliteFile(path).exec("DELETE FROM metadata"), SQLITE_OK);
    EXPECT_THROW(syncWait(LocalCalendarService(path).load()), FileSystemError);
    EXPECT_EQ(files(dir.path()).filter(".corrupt.").size(), 0);

    first.reset();
    syncWait(second.save(changed));
    EXPECT_EQ(loadFresh(path).snapshot.events, changed.events);
}

} // namespace
