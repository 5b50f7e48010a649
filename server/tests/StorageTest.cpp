#include "Crypto.h"
#include "ServerProcess.h"
#include "PostgresStorage.h"
#include "SqliteStorage.h"

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <thread>

namespace tavelo::cloud {
namespace {

using testing::TemporaryDirectory;

ScheduleRecord scheduleNumbered(int n, std::optional<std::string> recurrence = "daily") {
    char id[40];
    std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", n);
    return ScheduleRecord{id, "title " + std::to_string(n), "prompt", 1000.0 + n, "UTC", std::move(recurrence), false};
}

class SqliteStorageTest : public ::testing::Test {
protected:
    void SetUp() override {
        crypto::initialise();
        storage = std::make_unique<SqliteStorage>(path());
        storage->migrate();
    }
    std::string path() const { return directory.path() + "/db/cloud.sqlite3"; }

    TemporaryDirectory directory;
    std::unique_ptr<SqliteStorage> storage;
};

// The same behaviour from both implementations.
class StorageContract : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        crypto::initialise();
        if (GetParam() == "postgres") {
            if (!testing::testPostgresURL()) {
                if (std::getenv("TAVELO_CLOUD_REQUIRE_POSTGRES")) FAIL() << "no PostgreSQL cluster";
                GTEST_SKIP() << "runs under server/tests/with-postgres";
            }
            url = testing::createTestDatabase();
        } else {
            url = directory.path() + "/contract.sqlite3";
        }
        storage = openStorage(url);
        storage->migrate();
    }
    std::unique_ptr<Storage> another() { return openStorage(url); }

    TemporaryDirectory directory;
    std::string url;
    std::unique_ptr<Storage> storage;
};

INSTANTIATE_TEST_SUITE_P(Backends, StorageContract, ::testing::Values("sqlite", "postgres"),
                         [](const auto& info) { return info.param; });

TEST_F(SqliteStorageTest, MigrationsApplyOnceAndANewerSchemaIsRefused) {
    const int version = storage->schemaVersion();
    storage->putSchedule("owner", scheduleNumbered(1), 5000);
    // A second server starting on the same file changes nothing.
    SqliteStorage again(path());
    again.migrate();
    EXPECT_EQ(again.schemaVersion(), version);
    EXPECT_EQ(again.schedules("owner").size(), 1u);

    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path().c_str(), &db), SQLITE_OK);
    sqlite3_exec(db, "INSERT INTO schema_migrations VALUES (999, 0)", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    SqliteStorage newer(path());
    EXPECT_THROW(newer.migrate(), StorageError);
    EXPECT_EQ(newer.schedules("owner").size(), 1u); // nothing lost
}

// Which user sees which schedule is checked through the routes; here, what
// becomes of a deleted schedule's queued run.
TEST_P(StorageContract, ADeletedSchedulesQueuedRunIsCancelledAndNeverStarts) {
    const auto schedule = scheduleNumbered(7);
    storage->putSchedule("alice", schedule, 5000);
    ASSERT_TRUE(storage->enqueueRun("alice", schedule.id, 10, 10));
    EXPECT_TRUE(storage->runs("bob", 10).empty());
    EXPECT_TRUE(storage->deleteSchedule("alice", schedule.id));
    EXPECT_EQ(storage->runs("alice", 10).at(0).status, "cancelled");
    EXPECT_FALSE(storage->claimRun("w", 100, 60));
}

TEST_P(StorageContract, EachDueOccurrenceAndEachRunGoesToExactlyOneOfManyWorkers) {
    for (int i = 0; i < 40; ++i) storage->putSchedule("owner", scheduleNumbered(i), 100.0 + i);
    const auto due = storage->dueSchedules(1000, 100);
    ASSERT_EQ(due.size(), 40u);

    // Four workers, each with its own connections, race for every step.
    std::vector<std::unique_ptr<Storage>> workers;
    for (int w = 0; w < 4; ++w) workers.push_back(another());
    std::atomic<int> advanced{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < 4; ++w)
        threads.emplace_back([&, w] {
            for (const auto& item : due)
                if (workers[w]->advanceSchedule(item, item.nextRunAt, {}, item.nextRunAt + 86400, 1000)) ++advanced;
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(advanced, 40);
    EXPECT_TRUE(storage->dueSchedules(1000, 100).empty());

    std::mutex mutex;
    std::vector<std::string> claimed;
    threads.clear();
    for (int w = 0; w < 4; ++w)
        threads.emplace_back([&, w] {
            const std::string worker = "worker-" + std::to_string(w);
            while (auto run = workers[w]->claimRun(worker, 1000, 60)) {
                EXPECT_TRUE(workers[w]->finishRun(run->run.id, worker, "complete", "out", std::nullopt, 1001));
                std::lock_guard lock(mutex);
                claimed.push_back(run->run.id);
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(claimed.size(), 40u);
    EXPECT_EQ(std::set<std::string>(claimed.begin(), claimed.end()).size(), 40u);
}

TEST_P(StorageContract, AnExpiredLeaseIsQueuedAgainThenInterrupted) {
    storage->putSchedule("owner", scheduleNumbered(1), 5000);
    ASSERT_TRUE(storage->enqueueRun("owner", scheduleNumbered(1).id, 10, 10));
    auto first = storage->claimRun("dead-process", 10, 5);
    ASSERT_TRUE(first);
    EXPECT_EQ(storage->recoverExpiredRuns(12, 2), 0); // lease still running
    EXPECT_EQ(storage->recoverExpiredRuns(20, 2), 1);
    auto second = storage->claimRun("live-process", 20, 5);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->run.id, first->run.id);
    EXPECT_EQ(second->attempts, 2);
    // The dead process cannot write over the new holder's run.
    EXPECT_FALSE(storage->finishRun(first->run.id, "dead-process", "complete", "stale", std::nullopt, 21));
    EXPECT_EQ(storage->recoverExpiredRuns(40, 2), 1);
    const auto run = storage->runs("owner", 1).at(0);
    EXPECT_EQ(run.status, "interrupted");
}

TEST_P(StorageContract, RefreshTokensAndOneTimeCodes) {
    // Rotation, revocation and codes used up are checked through the routes.
    ASSERT_TRUE(storage->createUser(UserRecord{"u1", "a@example.jp", "hash", false, 1}));
    storage->insertRefreshToken(RefreshTokenRecord{"h1", "f", "u1", 1, std::nullopt, false});
    storage->markRefreshTokenReplaced("h1", 5);
    storage->markRefreshTokenReplaced("h1", 9); // the first replacement counts
    EXPECT_EQ(storage->refreshToken("h1")->replacedAt, 5);
    storage->insertOobCode("c", "u1", "verifyEmail", 100);
    EXPECT_FALSE(storage->consumeOobCode("c", "resetPassword", 10));
    EXPECT_EQ(storage->consumeOobCode("c", "verifyEmail", 10), "u1"); // the wrong purpose left it
    storage->insertOobCode("d", "u1", "verifyEmail", 100);
    EXPECT_FALSE(storage->consumeOobCode("d", "verifyEmail", 100)); // expired
}

TEST_F(SqliteStorageTest, ADamagedFileGivesAClearErrorAndIsLeftAsItWas) {
    const std::string damaged = directory.path() + "/damaged.sqlite3", junk(4096, 'x');
    std::ofstream(damaged) << junk;
    EXPECT_THROW(SqliteStorage(damaged).migrate(), StorageError);
    EXPECT_EQ(testing::readFile(damaged), junk);
}

} // namespace
} // namespace tavelo::cloud
