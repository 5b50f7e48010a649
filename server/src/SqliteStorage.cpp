#include "SqliteStorage.h"

#include "Crypto.h"
#include "Migrations.h"

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <utility>

namespace tavelo::cloud {

namespace {

[[noreturn]] void fail(sqlite3* db, const std::string& what) {
    throw StorageError(what + ": " + (db ? sqlite3_errmsg(db) : "no database"));
}

class Statement {
public:
    Statement(sqlite3* db, const char* sql) : db_(db) {
        if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) fail(db, "prepare");
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int index, const std::string& value) {
        check(sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT));
        return *this;
    }
    Statement& bind(int index, const char* value) { return bind(index, std::string(value)); }
    Statement& bind(int index, double value) {
        check(sqlite3_bind_double(statement_, index, value));
        return *this;
    }
    Statement& bind(int index, std::int64_t value) {
        check(sqlite3_bind_int64(statement_, index, value));
        return *this;
    }
    Statement& bind(int index, int value) { return bind(index, static_cast<std::int64_t>(value)); }
    Statement& bind(int index, bool value) { return bind(index, static_cast<std::int64_t>(value ? 1 : 0)); }
    Statement& bind(int index, const std::optional<std::string>& value) {
        if (!value) check(sqlite3_bind_null(statement_, index));
        else bind(index, *value);
        return *this;
    }
    Statement& bind(int index, const std::optional<double>& value) {
        if (!value) check(sqlite3_bind_null(statement_, index));
        else bind(index, *value);
        return *this;
    }

    // True while there is a row.
    bool step() {
        const int rc = sqlite3_step(statement_);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        if (rc == SQLITE_CONSTRAINT) throw ConstraintError(sqlite3_errmsg(db_));
        fail(db_, "step");
    }
    void run() {
        while (step()) {
        }
    }

    std::string text(int column) const {
        const auto* data = sqlite3_column_text(statement_, column);
        return data ? std::string(reinterpret_cast<const char*>(data), static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
                    : std::string();
    }
    std::optional<std::string> optionalText(int column) const {
        if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
        return text(column);
    }
    double real(int column) const { return sqlite3_column_double(statement_, column); }
    std::optional<double> optionalReal(int column) const {
        if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
        return real(column);
    }
    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }

    struct ConstraintError : StorageError {
        using StorageError::StorageError;
    };

private:
    void check(int rc) {
        if (rc != SQLITE_OK) fail(db_, "bind");
    }
    sqlite3* db_;
    sqlite3_stmt* statement_ = nullptr;
};

void exec(sqlite3* db, const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        std::string text = message ? message : "unknown";
        sqlite3_free(message);
        throw StorageError(std::string("exec: ") + text);
    }
}

// A write transaction that takes the file's write lock at once, so that two
// writers never both read and then fail to upgrade. Rolled back unless
// committed.
class WriteTransaction {
public:
    explicit WriteTransaction(sqlite3* db) : db_(db) { exec(db, "BEGIN IMMEDIATE"); }
    ~WriteTransaction() {
        if (!done_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    void commit() {
        exec(db_, "COMMIT");
        done_ = true;
    }

private:
    sqlite3* db_;
    bool done_ = false;
};

constexpr const char* kScheduleColumns = "id, title, prompt, first_run, time_zone, recurrence, is_paused";
constexpr const char* kRunColumns = "id, schedule_id, scheduled_at, started_at, ended_at, status, output, error";

ScheduleRecord readSchedule(const Statement& s, int first = 0) {
    return ScheduleRecord{s.text(first), s.text(first + 1), s.text(first + 2), s.real(first + 3), s.text(first + 4),
                          s.optionalText(first + 5), s.integer(first + 6) != 0};
}

RunRecord readRun(const Statement& s) {
    return RunRecord{s.text(0), s.text(1), s.real(2), s.optionalReal(3), s.optionalReal(4),
                     s.text(5), s.text(6), s.optionalText(7)};
}

std::string sql(std::initializer_list<std::string_view> parts) {
    std::string out;
    for (auto part : parts) out += part;
    return out;
}

} // namespace

class SqliteStorage::Connection {
public:
    explicit Connection(const std::string& path) {
        const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
        if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
            std::string message = db ? sqlite3_errmsg(db) : "out of memory";
            sqlite3_close(db);
            throw StorageError("cannot open " + path + ": " + message);
        }
        sqlite3_busy_timeout(db, 10000);
        exec(db, "PRAGMA journal_mode=WAL");
        // In WAL mode NORMAL loses nothing when the process dies; only a
        // power cut can drop the last commits.
        exec(db, "PRAGMA synchronous=NORMAL");
        exec(db, "PRAGMA foreign_keys=ON");
    }
    ~Connection() { sqlite3_close_v2(db); }
    sqlite3* db = nullptr;
};

class SqliteStorage::Lease {
public:
    Lease(SqliteStorage* owner, Connection* connection) : owner_(owner), connection_(connection) {}
    ~Lease() {
        if (connection_) owner_->release(connection_);
    }
    Lease(Lease&& other) noexcept : owner_(other.owner_), connection_(std::exchange(other.connection_, nullptr)) {}
    sqlite3* db() const { return connection_->db; }

private:
    SqliteStorage* owner_;
    Connection* connection_;
};

SqliteStorage::SqliteStorage(const std::string& path, int connections) {
    const auto parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent);
    for (int i = 0; i < std::max(1, connections); ++i) {
        connections_.push_back(std::make_unique<Connection>(path));
        idle_.push_back(connections_.back().get());
    }
}

SqliteStorage::~SqliteStorage() = default;

SqliteStorage::Lease SqliteStorage::acquire() {
    std::unique_lock lock(mutex_);
    available_.wait(lock, [this] { return !idle_.empty(); });
    Connection* connection = idle_.back();
    idle_.pop_back();
    return Lease(this, connection);
}

void SqliteStorage::release(Connection* connection) {
    {
        std::lock_guard lock(mutex_);
        idle_.push_back(connection);
    }
    available_.notify_one();
}

void SqliteStorage::migrate() {
    auto lease = acquire();
    WriteTransaction transaction(lease.db());
    exec(lease.db(), "CREATE TABLE IF NOT EXISTS schema_migrations (version INTEGER PRIMARY KEY,"
                     " applied_at DOUBLE PRECISION NOT NULL)");
    int current = 0;
    {
        Statement s(lease.db(), "SELECT COALESCE(MAX(version), 0) FROM schema_migrations");
        if (s.step()) current = static_cast<int>(s.integer(0));
    }
    const int known = migrations().empty() ? 0 : migrations().back().version;
    if (current > known)
        throw StorageError("the database was written by a newer server (schema " + std::to_string(current) + ")");
    for (const auto& migration : migrations()) {
        if (migration.version <= current) continue;
        for (const char* statement : migration.statements) exec(lease.db(), statement);
        Statement s(lease.db(), "INSERT INTO schema_migrations (version, applied_at) VALUES (?, strftime('%s','now'))");
        s.bind(1, migration.version).run();
    }
    transaction.commit();
}

int SqliteStorage::schemaVersion() {
    auto lease = acquire();
    Statement s(lease.db(), "SELECT COALESCE(MAX(version), 0) FROM schema_migrations");
    return s.step() ? static_cast<int>(s.integer(0)) : 0;
}

std::optional<std::string> SqliteStorage::setting(const std::string& key) {
    auto lease = acquire();
    Statement s(lease.db(), "SELECT value FROM settings WHERE key = ?");
    s.bind(1, key);
    if (!s.step()) return std::nullopt;
    return s.text(0);
}

std::string SqliteStorage::settingOrInsert(const std::string& key, const std::string& value) {
    auto lease = acquire();
    WriteTransaction transaction(lease.db());
    Statement(lease.db(), "INSERT INTO settings (key, value) VALUES (?, ?) ON CONFLICT (key) DO NOTHING")
        .bind(1, key)
        .bind(2, value)
        .run();
    Statement s(lease.db(), "SELECT value FROM settings WHERE key = ?");
    s.bind(1, key);
    std::string stored = s.step() ? s.text(0) : value;
    transaction.commit();
    return stored;
}

void SqliteStorage::setSetting(const std::string& key, const std::string& value) {
    auto lease = acquire();
    Statement(lease.db(), "INSERT INTO settings (key, value) VALUES (?, ?) ON CONFLICT (key) DO UPDATE SET value = excluded.value")
        .bind(1, key)
        .bind(2, value)
        .run();
}

void SqliteStorage::putSchedule(const std::string& userID, const ScheduleRecord& r, std::optional<double> nextRunAt) {
    auto lease = acquire();
    Statement(lease.db(),
              "INSERT INTO schedules (user_id, id, title, prompt, first_run, time_zone, recurrence, is_paused,"
              " next_run_at, updated_at) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, strftime('%s','now'))"
              " ON CONFLICT (user_id, id) DO UPDATE SET title = excluded.title, prompt = excluded.prompt,"
              " first_run = excluded.first_run, time_zone = excluded.time_zone, recurrence = excluded.recurrence,"
              " is_paused = excluded.is_paused, next_run_at = excluded.next_run_at, updated_at = excluded.updated_at")
        .bind(1, userID)
        .bind(2, r.id)
        .bind(3, r.title)
        .bind(4, r.prompt)
        .bind(5, r.firstRun)
        .bind(6, r.timeZoneID)
        .bind(7, r.recurrence)
        .bind(8, r.isPaused)
        .bind(9, nextRunAt)
        .run();
}

bool SqliteStorage::deleteSchedule(const std::string& userID, const std::string& scheduleID) {
    auto lease = acquire();
    WriteTransaction transaction(lease.db());
    Statement s(lease.db(), "DELETE FROM schedules WHERE user_id = ? AND id = ?");
    s.bind(1, userID).bind(2, scheduleID).run();
    const bool deleted = sqlite3_changes(lease.db()) > 0;
    // Queued runs of a deleted schedule never start; running ones finish.
    Statement(lease.db(), "UPDATE runs SET status = 'cancelled', ended_at = strftime('%s','now')"
                          " WHERE user_id = ? AND schedule_id = ? AND status = 'queued'")
        .bind(1, userID)
        .bind(2, scheduleID)
        .run();
    transaction.commit();
    return deleted;
}

std::optional<ScheduleRecord> SqliteStorage::schedule(const std::string& userID, const std::string& scheduleID) {
    auto lease = acquire();
    Statement s(lease.db(), sql({"SELECT ", kScheduleColumns, " FROM schedules WHERE user_id = ? AND id = ?"}).c_str());
    s.bind(1, userID).bind(2, scheduleID);
    if (!s.step()) return std::nullopt;
    return readSchedule(s);
}

std::vector<ScheduleRecord> SqliteStorage::schedules(const std::string& userID) {
    auto lease = acquire();
    Statement s(lease.db(), sql({"SELECT ", kScheduleColumns, " FROM schedules WHERE user_id = ? ORDER BY first_run, id"}).c_str());
    s.bind(1, userID);
    std::vector<ScheduleRecord> out;
    while (s.step()) out.push_back(readSchedule(s));
    return out;
}

std::vector<RunRecord> SqliteStorage::runs(const std::string& userID, int limit) {
    auto lease = acquire();
    Statement s(lease.db(), sql({"SELECT ", kRunColumns,
                                 " FROM runs WHERE user_id = ? ORDER BY scheduled_at DESC, id LIMIT ?"}).c_str());
    s.bind(1, userID).bind(2, limit);
    std::vector<RunRecord> out;
    while (s.step()) out.push_back(readRun(s));
    return out;
}

std::optional<RunRecord> SqliteStorage::enqueueRun(const std::string& userID, const std::string& scheduleID,
                                                   double scheduledAt, double now) {
    auto lease = acquire();
    WriteTransaction transaction(lease.db());
    Statement check(lease.db(), "SELECT 1 FROM schedules WHERE user_id = ? AND id = ?");
    check.bind(1, userID).bind(2, scheduleID);
    if (!check.step()) return std::nullopt;
    RunRecord run{crypto::newUUID(), scheduleID, scheduledAt, std::nullopt, std::nullopt, "queued", "", std::nullopt};
    Statement(lease.db(), "INSERT INTO runs (id, user_id, schedule_id, scheduled_at, status, not_before, manual)"
                          " VALUES (?, ?, ?, ?, 'queued', ?, 1)")
        .bind(1, run.id)
        .bind(2, userID)
        .bind(3, scheduleID)
        .bind(4, scheduledAt)
        .bind(5, now)
        .run();
    transaction.commit();
    return run;
}

std::vector<DueSchedule> SqliteStorage::dueSchedules(double now, int limit) {
    auto lease = acquire();
    Statement s(lease.db(), sql({"SELECT user_id, ", kScheduleColumns, ", next_run_at FROM schedules",
                                 " WHERE next_run_at IS NOT NULL AND next_run_at <= ? ORDER BY next_run_at LIMIT ?"}).c_str());
    s.bind(1, now).bind(2, limit);
    std::vector<DueSchedule> out;
    while (s.step()) out.push_back(DueSchedule{s.text(0), readSchedule(s, 1), s.real(8)});
    return out;
}

bool SqliteStorage::advanceSchedule(const DueSchedule& due, double scheduledAt, const std::vector<double>& missed,
                                    std::optional<double> nextRunAt, double now) {
    auto lease = acquire();
    WriteTransaction transaction(lease.db());
    Statement move(lease.db(), "UPDATE schedules SET next_run_at = ? WHERE user_id = ? AND id = ? AND next_run_at = ?");
    move.bind(1, nextRunAt).bind(2, due.userID).bind(3, due.schedule.id).bind(4, due.nextRunAt).run();
    if (sqlite3_changes(lease.db()) != 1) return false; // someone else took it, or the schedule changed
    auto insert = [&](double at, const char* status) {
        Statement s(lease.db(), "INSERT INTO runs (id, user_id, schedule_id, scheduled_at, status, not_before, ended_at)"
                                " VALUES (?, ?, ?, ?, ?, ?, ?) ON CONFLICT DO NOTHING");
        s.bind(1, crypto::newUUID()).bind(2, due.userID).bind(3, due.schedule.id).bind(4, at).bind(5, status).bind(6, now);
        if (std::string_view(status) == "missed") s.bind(7, now);
        else s.bind(7, std::optional<double>());
        s.run();
    };
    for (double at : missed) insert(at, "missed");
    if (!due.schedule.isPaused) insert(scheduledAt, "queued");
    transaction.commit();
    return true;
}

std::optional<ClaimedRun> SqliteStorage::claimRun(const std::string& worker, double now, double leaseSeconds) {
    auto lease = acquire();
    WriteTransaction transaction(lease.db());
    Statement pick(lease.db(), "SELECT r.id, r.user_id, r.schedule_id, r.scheduled_at, r.attempts, s.prompt FROM runs r"
                               " JOIN schedules s ON s.user_id = r.user_id AND s.id = r.schedule_id"
                               " WHERE r.status = 'queued' AND r.not_before <= ? ORDER BY r.not_before, r.scheduled_at LIMIT 1");
    pick.bind(1, now);
    if (!pick.step()) return std::nullopt;
    ClaimedRun claimed;
    claimed.run.id = pick.text(0);
    claimed.userID = pick.text(1);
    claimed.run.scheduleID = pick.text(2);
    claimed.run.scheduledAt = pick.real(3);
    claimed.attempts = static_cast<int>(pick.integer(4)) + 1;
    claimed.prompt = pick.text(5);
    claimed.run.status = "running";
    claimed.run.startedAt = now;
    Statement(lease.db(), "UPDATE runs SET status = 'running', started_at = ?, worker = ?, lease_until = ?,"
                          " attempts = attempts + 1 WHERE id = ? AND status = 'queued'")
        .bind(1, now)
        .bind(2, worker)
        .bind(3, now + leaseSeconds)
        .bind(4, claimed.run.id)
        .run();
    if (sqlite3_changes(lease.db()) != 1) return std::nullopt;
    transaction.commit();
    return claimed;
}

bool SqliteStorage::finishRun(const std::string& runID, const std::string& worker, const std::string& status,
                              const std::string& output, const std::optional<std::string>& error, double now) {
    auto lease = acquire();
    Statement(lease.db(), "UPDATE runs SET status = ?, output = ?, error = ?, ended_at = ?, lease_until = NULL"
                          " WHERE id = ? AND worker = ? AND status = 'running'")
        .bind(1, status)
        .bind(2, output)
        .bind(3, error)
        .bind(4, now)
        .bind(5, runID)
        .bind(6, worker)
        .run();
    return sqlite3_changes(lease.db()) == 1;
}

bool SqliteStorage::retryRun(const std::string& runID, const std::string& worker, const std::string& error,
                             double notBefore) {
    auto lease = acquire();
    Statement(lease.db(), "UPDATE runs SET status = 'queued', error = ?, not_before = ?, worker = NULL, lease_until = NULL"
                          " WHERE id = ? AND worker = ? AND status = 'running'")
        .bind(1, error)
        .bind(2, notBefore)
        .bind(3, runID)
        .bind(4, worker)
        .run();
    return sqlite3_changes(lease.db()) == 1;
}

int SqliteStorage::recoverExpiredRuns(double now, int maxAttempts) {
    auto lease = acquire();
    WriteTransaction transaction(lease.db());
    Statement(lease.db(), "UPDATE runs SET status = 'interrupted', ended_at = ?, lease_until = NULL,"
                          " error = 'サーバーが停止したため中断しました。'"
                          " WHERE status = 'running' AND lease_until < ? AND attempts >= ?")
        .bind(1, now)
        .bind(2, now)
        .bind(3, maxAttempts)
        .run();
    int touched = sqlite3_changes(lease.db());
    Statement(lease.db(), "UPDATE runs SET status = 'queued', worker = NULL, lease_until = NULL, not_before = ?"
                          " WHERE status = 'running' AND lease_until < ?")
        .bind(1, now)
        .bind(2, now)
        .run();
    touched += sqlite3_changes(lease.db());
    transaction.commit();
    return touched;
}

bool SqliteStorage::createUser(const UserRecord& user) {
    auto lease = acquire();
    try {
        Statement(lease.db(), "INSERT INTO users (id, email, password_hash, email_verified, created_at) VALUES (?, ?, ?, ?, ?)")
            .bind(1, user.id)
            .bind(2, user.email)
            .bind(3, user.passwordHash)
            .bind(4, user.emailVerified)
            .bind(5, user.createdAt)
            .run();
    } catch (const Statement::ConstraintError&) {
        return false;
    }
    return true;
}

namespace {
std::optional<UserRecord> readUser(Statement& s) {
    if (!s.step()) return std::nullopt;
    return UserRecord{s.text(0), s.text(1), s.text(2), s.integer(3) != 0, s.real(4)};
}
} // namespace

std::optional<UserRecord> SqliteStorage::userByEmail(const std::string& email) {
    auto lease = acquire();
    Statement s(lease.db(), "SELECT id, email, password_hash, email_verified, created_at FROM users WHERE email = ?");
    s.bind(1, email);
    return readUser(s);
}

std::optional<UserRecord> SqliteStorage::userByID(const std::string& userID) {
    auto lease = acquire();
    Statement s(lease.db(), "SELECT id, email, password_hash, email_verified, created_at FROM users WHERE id = ?");
    s.bind(1, userID);
    return readUser(s);
}

void SqliteStorage::setPasswordHash(const std::string& userID, const std::string& hash) {
    auto lease = acquire();
    Statement(lease.db(), "UPDATE users SET password_hash = ? WHERE id = ?").bind(1, hash).bind(2, userID).run();
}

void SqliteStorage::setEmailVerified(const std::string& userID) {
    auto lease = acquire();
    Statement(lease.db(), "UPDATE users SET email_verified = 1 WHERE id = ?").bind(1, userID).run();
}

bool SqliteStorage::aiLinked(const std::string& userID) {
    auto lease = acquire();
    Statement s(lease.db(), "SELECT linked FROM ai_links WHERE user_id = ?");
    s.bind(1, userID);
    return !s.step() || s.integer(0) != 0;
}

void SqliteStorage::setAILinked(const std::string& userID, bool linked) {
    auto lease = acquire();
    Statement(lease.db(), "INSERT INTO ai_links (user_id, linked) VALUES (?, ?)"
                          " ON CONFLICT (user_id) DO UPDATE SET linked = excluded.linked")
        .bind(1, userID)
        .bind(2, linked)
        .run();
}

void SqliteStorage::insertRefreshToken(const RefreshTokenRecord& t) {
    auto lease = acquire();
    Statement(lease.db(), "INSERT INTO refresh_tokens (hash, family, user_id, created_at, replaced_at, revoked)"
                          " VALUES (?, ?, ?, ?, ?, ?)")
        .bind(1, t.hash)
        .bind(2, t.family)
        .bind(3, t.userID)
        .bind(4, t.createdAt)
        .bind(5, t.replacedAt)
        .bind(6, t.revoked)
        .run();
}

std::optional<RefreshTokenRecord> SqliteStorage::refreshToken(const std::string& hash) {
    auto lease = acquire();
    Statement s(lease.db(), "SELECT hash, family, user_id, created_at, replaced_at, revoked FROM refresh_tokens WHERE hash = ?");
    s.bind(1, hash);
    if (!s.step()) return std::nullopt;
    return RefreshTokenRecord{s.text(0), s.text(1), s.text(2), s.real(3), s.optionalReal(4), s.integer(5) != 0};
}

void SqliteStorage::markRefreshTokenReplaced(const std::string& hash, double at) {
    auto lease = acquire();
    Statement(lease.db(), "UPDATE refresh_tokens SET replaced_at = ? WHERE hash = ? AND replaced_at IS NULL")
        .bind(1, at)
        .bind(2, hash)
        .run();
}

void SqliteStorage::revokeRefreshFamily(const std::string& family) {
    auto lease = acquire();
    Statement(lease.db(), "UPDATE refresh_tokens SET revoked = 1 WHERE family = ?").bind(1, family).run();
}

void SqliteStorage::revokeUserRefreshTokens(const std::string& userID) {
    auto lease = acquire();
    Statement(lease.db(), "UPDATE refresh_tokens SET revoked = 1 WHERE user_id = ?").bind(1, userID).run();
}

void SqliteStorage::insertOobCode(const std::string& hash, const std::string& userID, const std::string& kind,
                                  double expiresAt) {
    auto lease = acquire();
    Statement(lease.db(), "INSERT INTO oob_codes (hash, user_id, kind, expires_at) VALUES (?, ?, ?, ?)")
        .bind(1, hash)
        .bind(2, userID)
        .bind(3, kind)
        .bind(4, expiresAt)
        .run();
}

std::optional<std::string> SqliteStorage::consumeOobCode(const std::string& hash, const std::string& kind, double now) {
    auto lease = acquire();
    WriteTransaction transaction(lease.db());
    Statement s(lease.db(), "SELECT user_id FROM oob_codes WHERE hash = ? AND kind = ? AND used = 0 AND expires_at > ?");
    s.bind(1, hash).bind(2, kind).bind(3, now);
    if (!s.step()) return std::nullopt;
    std::string userID = s.text(0);
    Statement(lease.db(), "UPDATE oob_codes SET used = 1 WHERE hash = ?").bind(1, hash).run();
    transaction.commit();
    return userID;
}

} // namespace tavelo::cloud
