#pragma once

// The server's data behind one small interface, with an SQLite and a
// PostgreSQL implementation. Every method is thread-safe and either commits
// as a whole or fails with StorageError, leaving nothing half-written.
// Times are seconds since 1970.

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavelo::cloud {

class StorageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct ScheduleRecord {
    std::string id; // lower-case UUID
    std::string title;
    std::string prompt;
    double firstRun = 0;
    std::string timeZoneID;
    std::optional<std::string> recurrence; // "daily", "weekly", "monthly"
    bool isPaused = false;
};

struct RunRecord {
    std::string id;
    std::string scheduleID;
    double scheduledAt = 0;
    std::optional<double> startedAt;
    std::optional<double> endedAt;
    std::string status; // queued, running, complete, failed, missed, interrupted, cancelled
    std::string output;
    std::optional<std::string> error;
};

struct UserRecord {
    std::string id;
    std::string email; // lower case
    std::string passwordHash;
    bool emailVerified = false;
    double createdAt = 0;
};

struct RefreshTokenRecord {
    std::string hash;
    std::string family;
    std::string userID;
    double createdAt = 0;
    std::optional<double> replacedAt;
    bool revoked = false;
};

// A schedule whose next occurrence is due.
struct DueSchedule {
    std::string userID;
    ScheduleRecord schedule;
    double nextRunAt = 0;
};

// A run taken by one worker, with what it needs to execute it.
struct ClaimedRun {
    std::string userID;
    RunRecord run;
    std::string prompt;
    int attempts = 0; // including this one
};

class Storage {
public:
    virtual ~Storage() = default;

    // Applies the migrations not yet applied. Safe to call from several
    // processes at once.
    virtual void migrate() = 0;
    virtual int schemaVersion() = 0;

    // --- server settings -------------------------------------------------------
    virtual std::optional<std::string> setting(const std::string& key) = 0;
    // Stores `value` unless the key has one; gives the value that is stored.
    virtual std::string settingOrInsert(const std::string& key, const std::string& value) = 0;
    virtual void setSetting(const std::string& key, const std::string& value) = 0;

    // --- schedules and runs ------------------------------------------------------
    // Inserts or replaces the user's schedule, with the time of its next
    // occurrence (none when it has no more).
    virtual void putSchedule(const std::string& userID, const ScheduleRecord& schedule,
                             std::optional<double> nextRunAt) = 0;
    // False when the user has no such schedule. Runs in progress stay.
    virtual bool deleteSchedule(const std::string& userID, const std::string& scheduleID) = 0;
    virtual std::optional<ScheduleRecord> schedule(const std::string& userID, const std::string& scheduleID) = 0;
    virtual std::vector<ScheduleRecord> schedules(const std::string& userID) = 0;
    // Newest first by scheduled time, at most `limit`.
    virtual std::vector<RunRecord> runs(const std::string& userID, int limit) = 0;
    // A queued run of the user's schedule; nothing when the schedule is not
    // the user's.
    virtual std::optional<RunRecord> enqueueRun(const std::string& userID, const std::string& scheduleID,
                                                 double scheduledAt, double now) = 0;

    // --- the scheduler -------------------------------------------------------------
    virtual std::vector<DueSchedule> dueSchedules(double now, int limit) = 0;
    // Queues the run of one occurrence and moves the schedule on to
    // `nextRunAt`, only when the schedule still expects `expectedNextRunAt`:
    // of several processes exactly one succeeds. Earlier occurrences skipped
    // while the server was off are stored as missed.
    virtual bool advanceSchedule(const DueSchedule& due, double scheduledAt, const std::vector<double>& missed,
                                 std::optional<double> nextRunAt, double now) = 0;
    // Takes the oldest queued run that may start now, marking it running
    // under a lease; exactly one caller gets each run.
    virtual std::optional<ClaimedRun> claimRun(const std::string& worker, double now, double leaseSeconds) = 0;
    // Ends a run this worker holds. False when the lease was lost.
    virtual bool finishRun(const std::string& runID, const std::string& worker, const std::string& status,
                           const std::string& output, const std::optional<std::string>& error, double now) = 0;
    // Puts a run this worker holds back in the queue, to start at `notBefore`.
    virtual bool retryRun(const std::string& runID, const std::string& worker, const std::string& error,
                          double notBefore) = 0;
    // Runs whose lease ran out (their process died) go back to the queue, or
    // end as interrupted after `maxAttempts`. Gives how many were touched.
    virtual int recoverExpiredRuns(double now, int maxAttempts) = 0;

    // --- accounts ------------------------------------------------------------------
    // False when the address is taken.
    virtual bool createUser(const UserRecord& user) = 0;
    virtual std::optional<UserRecord> userByEmail(const std::string& email) = 0;
    virtual std::optional<UserRecord> userByID(const std::string& userID) = 0;
    virtual void setPasswordHash(const std::string& userID, const std::string& hash) = 0;
    virtual void setEmailVerified(const std::string& userID) = 0;
    // Whether the user's AI provider link is on (it is unless turned off).
    virtual bool aiLinked(const std::string& userID) = 0;
    virtual void setAILinked(const std::string& userID, bool linked) = 0;

    virtual void insertRefreshToken(const RefreshTokenRecord& token) = 0;
    virtual std::optional<RefreshTokenRecord> refreshToken(const std::string& hash) = 0;
    // Sets `replacedAt` unless it is set already.
    virtual void markRefreshTokenReplaced(const std::string& hash, double at) = 0;
    virtual void revokeRefreshFamily(const std::string& family) = 0;
    virtual void revokeUserRefreshTokens(const std::string& userID) = 0;

    // One-time codes of the mails (password reset, address verification).
    virtual void insertOobCode(const std::string& hash, const std::string& userID, const std::string& kind,
                               double expiresAt) = 0;
    // The user of a valid code, which is used up.
    virtual std::optional<std::string> consumeOobCode(const std::string& hash, const std::string& kind, double now) = 0;
};

// "postgresql://..." or "postgres://..." opens PostgreSQL; anything else is
// an SQLite file path (an optional "sqlite://" prefix is dropped).
std::unique_ptr<Storage> openStorage(const std::string& url);

} // namespace tavelo::cloud
