#include "PostgresStorage.h"

#include "Crypto.h"
#include "Migrations.h"

#include <libpq-fe.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace tavelo::cloud {

namespace {

using Param = std::optional<std::string>;

std::string number(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}
Param number(const std::optional<double>& value) { return value ? Param(number(*value)) : std::nullopt; }
std::string flag(bool value) { return value ? "1" : "0"; }

double wallClock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class Result {
public:
    explicit Result(PGresult* result) : result_(result) {}
    ~Result() { PQclear(result_); }
    Result(Result&& other) noexcept : result_(std::exchange(other.result_, nullptr)) {}
    Result(const Result&) = delete;

    PGresult* get() const { return result_; }
    int rows() const { return PQntuples(result_); }
    int affected() const {
        const char* text = PQcmdTuples(result_);
        return text && *text ? std::atoi(text) : 0;
    }
    bool isNull(int row, int column) const { return PQgetisnull(result_, row, column); }
    std::string text(int row, int column) const {
        return std::string(PQgetvalue(result_, row, column), static_cast<std::size_t>(PQgetlength(result_, row, column)));
    }
    std::optional<std::string> optionalText(int row, int column) const {
        if (isNull(row, column)) return std::nullopt;
        return text(row, column);
    }
    double real(int row, int column) const { return std::strtod(PQgetvalue(result_, row, column), nullptr); }
    std::optional<double> optionalReal(int row, int column) const {
        if (isNull(row, column)) return std::nullopt;
        return real(row, column);
    }
    long long integer(int row, int column) const { return std::atoll(PQgetvalue(result_, row, column)); }

private:
    PGresult* result_;
};

struct UniqueViolation : StorageError {
    using StorageError::StorageError;
};

constexpr const char* kScheduleColumns = "id, title, prompt, first_run, time_zone, recurrence, is_paused";
constexpr const char* kRunColumns = "id, schedule_id, scheduled_at, started_at, ended_at, status, output, error";

ScheduleRecord readSchedule(const Result& r, int row, int first = 0) {
    return ScheduleRecord{r.text(row, first), r.text(row, first + 1), r.text(row, first + 2), r.real(row, first + 3),
                          r.text(row, first + 4), r.optionalText(row, first + 5), r.integer(row, first + 6) != 0};
}

RunRecord readRun(const Result& r, int row) {
    return RunRecord{r.text(row, 0), r.text(row, 1), r.real(row, 2), r.optionalReal(row, 3), r.optionalReal(row, 4),
                     r.text(row, 5), r.text(row, 6), r.optionalText(row, 7)};
}

} // namespace

class PostgresStorage::Connection {
public:
    explicit Connection(const std::string& url) : url_(url) { open(); }
    ~Connection() { PQfinish(connection_); }

    // One statement with $1... parameters, all sent as text.
    Result run(const std::string& sql, const std::vector<Param>& params = {}) {
        for (int attempt = 0;; ++attempt) {
            std::vector<const char*> values;
            values.reserve(params.size());
            for (const auto& p : params) values.push_back(p ? p->c_str() : nullptr);
            Result result(PQexecParams(connection_, sql.c_str(), static_cast<int>(values.size()), nullptr, values.data(),
                                       nullptr, nullptr, 0));
            const auto status = PQresultStatus(result.get());
            if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) return result;
            const char* state = PQresultErrorField(result.get(), PG_DIAG_SQLSTATE);
            const std::string message = PQerrorMessage(connection_);
            if (state && std::string(state) == "23505") throw UniqueViolation(message);
            // A dropped connection outside a transaction is reopened once.
            if (PQstatus(connection_) == CONNECTION_BAD && !inTransaction && attempt == 0) {
                PQreset(connection_);
                continue;
            }
            throw StorageError("PostgreSQL: " + message);
        }
    }

    bool inTransaction = false;

private:
    void open() {
        connection_ = PQconnectdb(url_.c_str());
        if (PQstatus(connection_) != CONNECTION_OK) {
            const std::string message = PQerrorMessage(connection_);
            PQfinish(connection_);
            connection_ = nullptr;
            throw StorageError("cannot connect to PostgreSQL: " + message);
        }
        PQexec(connection_, "SET client_min_messages = warning");
    }
    std::string url_;
    PGconn* connection_ = nullptr;
};

namespace {
class Transaction {
public:
    explicit Transaction(PostgresStorage::Connection& c) : c_(c) {
        c_.run("BEGIN");
        c_.inTransaction = true;
    }
    ~Transaction() {
        if (!done_) {
            try {
                c_.run("ROLLBACK");
            } catch (...) {
            }
            c_.inTransaction = false;
        }
    }
    void commit() {
        c_.run("COMMIT");
        c_.inTransaction = false;
        done_ = true;
    }

private:
    PostgresStorage::Connection& c_;
    bool done_ = false;
};
} // namespace

class PostgresStorage::Lease {
public:
    Lease(PostgresStorage* owner, Connection* connection) : owner_(owner), connection_(connection) {}
    ~Lease() {
        if (connection_) owner_->release(connection_);
    }
    Lease(Lease&& other) noexcept : owner_(other.owner_), connection_(std::exchange(other.connection_, nullptr)) {}
    Connection& operator*() const { return *connection_; }
    Connection* operator->() const { return connection_; }

private:
    PostgresStorage* owner_;
    Connection* connection_;
};

PostgresStorage::PostgresStorage(const std::string& url, int connections) : url_(url) {
    for (int i = 0; i < std::max(1, connections); ++i) {
        connections_.push_back(std::make_unique<Connection>(url));
        idle_.push_back(connections_.back().get());
    }
}

PostgresStorage::~PostgresStorage() = default;

PostgresStorage::Lease PostgresStorage::acquire() {
    std::unique_lock lock(mutex_);
    available_.wait(lock, [this] { return !idle_.empty(); });
    Connection* connection = idle_.back();
    idle_.pop_back();
    return Lease(this, connection);
}

void PostgresStorage::release(Connection* connection) {
    {
        std::lock_guard lock(mutex_);
        idle_.push_back(connection);
    }
    available_.notify_one();
}

void PostgresStorage::migrate() {
    auto c = acquire();
    Transaction t(*c);
    // Several processes may start together; one migrates, the others wait.
    c->run("SELECT pg_advisory_xact_lock(47615)");
    c->run("CREATE TABLE IF NOT EXISTS schema_migrations (version INTEGER PRIMARY KEY, applied_at DOUBLE PRECISION NOT NULL)");
    const int current = static_cast<int>(c->run("SELECT COALESCE(MAX(version), 0) FROM schema_migrations").integer(0, 0));
    const int known = migrations().empty() ? 0 : migrations().back().version;
    if (current > known)
        throw StorageError("the database was written by a newer server (schema " + std::to_string(current) + ")");
    for (const auto& migration : migrations()) {
        if (migration.version <= current) continue;
        for (const char* statement : migration.statements) c->run(statement);
        c->run("INSERT INTO schema_migrations (version, applied_at) VALUES ($1, $2)",
               {std::to_string(migration.version), number(wallClock())});
    }
    t.commit();
}

int PostgresStorage::schemaVersion() {
    auto c = acquire();
    return static_cast<int>(c->run("SELECT COALESCE(MAX(version), 0) FROM schema_migrations").integer(0, 0));
}

std::optional<std::string> PostgresStorage::setting(const std::string& key) {
    auto c = acquire();
    auto r = c->run("SELECT value FROM settings WHERE key = $1", {key});
    if (r.rows() == 0) return std::nullopt;
    return r.text(0, 0);
}

std::string PostgresStorage::settingOrInsert(const std::string& key, const std::string& value) {
    auto c = acquire();
    c->run("INSERT INTO settings (key, value) VALUES ($1, $2) ON CONFLICT (key) DO NOTHING", {key, value});
    auto r = c->run("SELECT value FROM settings WHERE key = $1", {key});
    return r.rows() ? r.text(0, 0) : value;
}

void PostgresStorage::setSetting(const std::string& key, const std::string& value) {
    auto c = acquire();
    c->run("INSERT INTO settings (key, value) VALUES ($1, $2) ON CONFLICT (key) DO UPDATE SET value = excluded.value",
           {key, value});
}

void PostgresStorage::putSchedule(const std::string& userID, const ScheduleRecord& s, std::optional<double> nextRunAt) {
    auto c = acquire();
    c->run("INSERT INTO schedules (user_id, id, title, prompt, first_run, time_zone, recurrence, is_paused, next_run_at,"
           " updated_at) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10) ON CONFLICT (user_id, id) DO UPDATE SET"
           " title = excluded.title, prompt = excluded.prompt, first_run = excluded.first_run,"
           " time_zone = excluded.time_zone, recurrence = excluded.recurrence, is_paused = excluded.is_paused,"
           " next_run_at = excluded.next_run_at, updated_at = excluded.updated_at",
           {userID, s.id, s.title, s.prompt, number(s.firstRun), s.timeZoneID, s.recurrence, flag(s.isPaused),
            number(nextRunAt), number(wallClock())});
}

bool PostgresStorage::deleteSchedule(const std::string& userID, const std::string& scheduleID) {
    auto c = acquire();
    Transaction t(*c);
    const bool deleted = c->run("DELETE FROM schedules WHERE user_id = $1 AND id = $2", {userID, scheduleID}).affected() > 0;
    c->run("UPDATE runs SET status = 'cancelled', ended_at = $3 WHERE user_id = $1 AND schedule_id = $2 AND status = 'queued'",
           {userID, scheduleID, number(wallClock())});
    t.commit();
    return deleted;
}

std::optional<ScheduleRecord> PostgresStorage::schedule(const std::string& userID, const std::string& scheduleID) {
    auto c = acquire();
    auto r = c->run(std::string("SELECT ") + kScheduleColumns + " FROM schedules WHERE user_id = $1 AND id = $2",
                    {userID, scheduleID});
    if (r.rows() == 0) return std::nullopt;
    return readSchedule(r, 0);
}

std::vector<ScheduleRecord> PostgresStorage::schedules(const std::string& userID) {
    auto c = acquire();
    auto r = c->run(std::string("SELECT ") + kScheduleColumns + " FROM schedules WHERE user_id = $1 ORDER BY first_run, id",
                    {userID});
    std::vector<ScheduleRecord> out;
    for (int i = 0; i < r.rows(); ++i) out.push_back(readSchedule(r, i));
    return out;
}

std::vector<RunRecord> PostgresStorage::runs(const std::string& userID, int limit) {
    auto c = acquire();
    auto r = c->run(std::string("SELECT ") + kRunColumns +
                        " FROM runs WHERE user_id = $1 ORDER BY scheduled_at DESC, id LIMIT $2",
                    {userID, std::to_string(limit)});
    std::vector<RunRecord> out;
    for (int i = 0; i < r.rows(); ++i) out.push_back(readRun(r, i));
    return out;
}

std::optional<RunRecord> PostgresStorage::enqueueRun(const std::string& userID, const std::string& scheduleID,
                                                     double scheduledAt, double now) {
    auto c = acquire();
    RunRecord run{crypto::newUUID(), scheduleID, scheduledAt, std::nullopt, std::nullopt, "queued", "", std::nullopt};
    // Inserted only while the schedule exists, in one statement.
    const auto r = c->run("INSERT INTO runs (id, user_id, schedule_id, scheduled_at, status, not_before, manual)"
                          " SELECT $1, $2, $3, $4, 'queued', $5, 1 WHERE EXISTS"
                          " (SELECT 1 FROM schedules WHERE user_id = $2 AND id = $3)",
                          {run.id, userID, scheduleID, number(scheduledAt), number(now)});
    if (r.affected() != 1) return std::nullopt;
    return run;
}

std::vector<DueSchedule> PostgresStorage::dueSchedules(double now, int limit) {
    auto c = acquire();
    auto r = c->run(std::string("SELECT user_id, ") + kScheduleColumns +
                        ", next_run_at FROM schedules WHERE next_run_at IS NOT NULL AND next_run_at <= $1"
                        " ORDER BY next_run_at LIMIT $2",
                    {number(now), std::to_string(limit)});
    std::vector<DueSchedule> out;
    for (int i = 0; i < r.rows(); ++i) out.push_back(DueSchedule{r.text(i, 0), readSchedule(r, i, 1), r.real(i, 8)});
    return out;
}

bool PostgresStorage::advanceSchedule(const DueSchedule& due, double scheduledAt, const std::vector<double>& missed,
                                      std::optional<double> nextRunAt, double now) {
    auto c = acquire();
    Transaction t(*c);
    const auto moved = c->run("UPDATE schedules SET next_run_at = $1 WHERE user_id = $2 AND id = $3 AND next_run_at = $4",
                              {number(nextRunAt), due.userID, due.schedule.id, number(due.nextRunAt)});
    if (moved.affected() != 1) return false;
    auto insert = [&](double at, const char* status, bool ended) {
        c->run("INSERT INTO runs (id, user_id, schedule_id, scheduled_at, status, not_before, ended_at)"
               " VALUES ($1, $2, $3, $4, $5, $6, $7) ON CONFLICT DO NOTHING",
               {crypto::newUUID(), due.userID, due.schedule.id, number(at), std::string(status), number(now),
                ended ? Param(number(now)) : std::nullopt});
    };
    for (double at : missed) insert(at, "missed", true);
    if (!due.schedule.isPaused) insert(scheduledAt, "queued", false);
    t.commit();
    return true;
}

std::optional<ClaimedRun> PostgresStorage::claimRun(const std::string& worker, double now, double leaseSeconds) {
    auto c = acquire();
    Transaction t(*c);
    auto r = c->run("WITH picked AS (SELECT r.id, s.prompt FROM runs r JOIN schedules s"
                    " ON s.user_id = r.user_id AND s.id = r.schedule_id"
                    " WHERE r.status = 'queued' AND r.not_before <= $1 ORDER BY r.not_before, r.scheduled_at"
                    " LIMIT 1 FOR UPDATE OF r SKIP LOCKED)"
                    " UPDATE runs SET status = 'running', started_at = $1, worker = $2, lease_until = $3,"
                    " attempts = runs.attempts + 1 FROM picked WHERE runs.id = picked.id"
                    " RETURNING runs.id, runs.user_id, runs.schedule_id, runs.scheduled_at, runs.attempts, picked.prompt",
                    {number(now), worker, number(now + leaseSeconds)});
    if (r.rows() == 0) return std::nullopt;
    ClaimedRun claimed;
    claimed.run.id = r.text(0, 0);
    claimed.userID = r.text(0, 1);
    claimed.run.scheduleID = r.text(0, 2);
    claimed.run.scheduledAt = r.real(0, 3);
    claimed.attempts = static_cast<int>(r.integer(0, 4));
    claimed.prompt = r.text(0, 5);
    claimed.run.status = "running";
    claimed.run.startedAt = now;
    t.commit();
    return claimed;
}

bool PostgresStorage::finishRun(const std::string& runID, const std::string& worker, const std::string& status,
                                const std::string& output, const std::optional<std::string>& error, double now) {
    auto c = acquire();
    return c->run("UPDATE runs SET status = $1, output = $2, error = $3, ended_at = $4, lease_until = NULL"
                  " WHERE id = $5 AND worker = $6 AND status = 'running'",
                  {status, output, error, number(now), runID, worker})
               .affected() == 1;
}

bool PostgresStorage::retryRun(const std::string& runID, const std::string& worker, const std::string& error,
                               double notBefore) {
    auto c = acquire();
    return c->run("UPDATE runs SET status = 'queued', error = $1, not_before = $2, worker = NULL, lease_until = NULL"
                  " WHERE id = $3 AND worker = $4 AND status = 'running'",
                  {error, number(notBefore), runID, worker})
               .affected() == 1;
}

int PostgresStorage::recoverExpiredRuns(double now, int maxAttempts) {
    auto c = acquire();
    Transaction t(*c);
    int touched = c->run("UPDATE runs SET status = 'interrupted', ended_at = $1, lease_until = NULL,"
                         " error = 'サーバーが停止したため中断しました。'"
                         " WHERE status = 'running' AND lease_until < $1 AND attempts >= $2",
                         {number(now), std::to_string(maxAttempts)})
                      .affected();
    touched += c->run("UPDATE runs SET status = 'queued', worker = NULL, lease_until = NULL, not_before = $1"
                      " WHERE status = 'running' AND lease_until < $1",
                      {number(now)})
                   .affected();
    t.commit();
    return touched;
}

bool PostgresStorage::createUser(const UserRecord& u) {
    auto c = acquire();
    try {
        c->run("INSERT INTO users (id, email, password_hash, email_verified, created_at) VALUES ($1, $2, $3, $4, $5)",
               {u.id, u.email, u.passwordHash, flag(u.emailVerified), number(u.createdAt)});
    } catch (const UniqueViolation&) {
        return false;
    }
    return true;
}

namespace {
std::optional<UserRecord> readUser(const Result& r) {
    if (r.rows() == 0) return std::nullopt;
    return UserRecord{r.text(0, 0), r.text(0, 1), r.text(0, 2), r.integer(0, 3) != 0, r.real(0, 4)};
}
} // namespace

std::optional<UserRecord> PostgresStorage::userByEmail(const std::string& email) {
    auto c = acquire();
    return readUser(c->run("SELECT id, email, password_hash, email_verified, created_at FROM users WHERE email = $1", {email}));
}

std::optional<UserRecord> PostgresStorage::userByID(const std::string& userID) {
    auto c = acquire();
    return readUser(c->run("SELECT id, email, password_hash, email_verified, created_at FROM users WHERE id = $1", {userID}));
}

void PostgresStorage::setPasswordHash(const std::string& userID, const std::string& hash) {
    auto c = acquire();
    c->run("UPDATE users SET password_hash = $1 WHERE id = $2", {hash, userID});
}

void PostgresStorage::setEmailVerified(const std::string& userID) {
    auto c = acquire();
    c->run("UPDATE users SET email_verified = 1 WHERE id = $1", {userID});
}

bool PostgresStorage::aiLinked(const std::string& userID) {
    auto c = acquire();
    auto r = c->run("SELECT linked FROM ai_links WHERE user_id = $1", {userID});
    return r.rows() == 0 || r.integer(0, 0) != 0;
}

void PostgresStorage::setAILinked(const std::string& userID, bool linked) {
    auto c = acquire();
    c->run("INSERT INTO ai_links (user_id, linked) VALUES ($1, $2) ON CONFLICT (user_id) DO UPDATE SET linked = excluded.linked",
           {userID, flag(linked)});
}

void PostgresStorage::insertRefreshToken(const RefreshTokenRecord& t) {
    auto c = acquire();
    c->run("INSERT INTO refresh_tokens (hash, family, user_id, created_at, replaced_at, revoked) VALUES ($1, $2, $3, $4, $5, $6)",
           {t.hash, t.family, t.userID, number(t.createdAt), number(t.replacedAt), flag(t.revoked)});
}

std::optional<RefreshTokenRecord> PostgresStorage::refreshToken(const std::string& hash) {
    auto c = acquire();
    auto r = c->run("SELECT hash, family, user_id, created_at, replaced_at, revoked FROM refresh_tokens WHERE hash = $1", {hash});
    if (r.rows() == 0) return std::nullopt;
    return RefreshTokenRecord{r.text(0, 0), r.text(0, 1), r.text(0, 2), r.real(0, 3), r.optionalReal(0, 4), r.integer(0, 5) != 0};
}

void PostgresStorage::markRefreshTokenReplaced(const std::string& hash, double at) {
    auto c = acquire();
    c->run("UPDATE refresh_tokens SET replaced_at = $1 WHERE hash = $2 AND replaced_at IS NULL", {number(at), hash});
}

void PostgresStorage::revokeRefreshFamily(const std::string& family) {
    auto c = acquire();
    c->run("UPDATE refresh_tokens SET revoked = 1 WHERE family = $1", {family});
}

void PostgresStorage::revokeUserRefreshTokens(const std::string& userID) {
    auto c = acquire();
    c->run("UPDATE refresh_tokens SET revoked = 1 WHERE user_id = $1", {userID});
}

void PostgresStorage::insertOobCode(const std::string& hash, const std::string& userID, const std::string& kind,
                                    double expiresAt) {
    auto c = acquire();
    c->run("INSERT INTO oob_codes (hash, user_id, kind, expires_at) VALUES ($1, $2, $3, $4)",
           {hash, userID, kind, number(expiresAt)});
}

std::optional<std::string> PostgresStorage::consumeOobCode(const std::string& hash, const std::string& kind, double now) {
    auto c = acquire();
    auto r = c->run("UPDATE oob_codes SET used = 1 WHERE hash = $1 AND kind = $2 AND used = 0 AND expires_at > $3"
                    " RETURNING user_id",
                    {hash, kind, number(now)});
    if (r.rows() == 0) return std::nullopt;
    return r.text(0, 0);
}

} // namespace tavelo::cloud
