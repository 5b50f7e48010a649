#pragma once

#include "Storage.h"

#include <condition_variable>
#include <mutex>

namespace tavelo::cloud {

// PostgreSQL through libpq, for a team's server or several processes behind
// a load balancer. A small pool of connections; queued runs are claimed with
// SELECT ... FOR UPDATE SKIP LOCKED, so each goes to exactly one process.
class PostgresStorage final : public Storage {
public:
    explicit PostgresStorage(const std::string& url, int connections = 4);
    ~PostgresStorage() override;

    void migrate() override;
    int schemaVersion() override;

    std::optional<std::string> setting(const std::string& key) override;
    std::string settingOrInsert(const std::string& key, const std::string& value) override;
    void setSetting(const std::string& key, const std::string& value) override;

    void putSchedule(const std::string& userID, const ScheduleRecord& schedule, std::optional<double> nextRunAt) override;
    bool deleteSchedule(const std::string& userID, const std::string& scheduleID) override;
    std::optional<ScheduleRecord> schedule(const std::string& userID, const std::string& scheduleID) override;
    std::vector<ScheduleRecord> schedules(const std::string& userID) override;
    std::vector<RunRecord> runs(const std::string& userID, int limit) override;
    std::optional<RunRecord> enqueueRun(const std::string& userID, const std::string& scheduleID, double scheduledAt,
                                        double now) override;

    std::vector<DueSchedule> dueSchedules(double now, int limit) override;
    bool advanceSchedule(const DueSchedule& due, double scheduledAt, const std::vector<double>& missed,
                         std::optional<double> nextRunAt, double now) override;
    std::optional<ClaimedRun> claimRun(const std::string& worker, double now, double leaseSeconds) override;
    bool finishRun(const std::string& runID, const std::string& worker, const std::string& status,
                   const std::string& output, const std::optional<std::string>& error, double now) override;
    bool retryRun(const std::string& runID, const std::string& worker, const std::string& error,
                  double notBefore) override;
    int recoverExpiredRuns(double now, int maxAttempts) override;

    bool createUser(const UserRecord& user) override;
    std::optional<UserRecord> userByEmail(const std::string& email) override;
    std::optional<UserRecord> userByID(const std::string& userID) override;
    void setPasswordHash(const std::string& userID, const std::string& hash) override;
    void setEmailVerified(const std::string& userID) override;
    bool aiLinked(const std::string& userID) override;
    void setAILinked(const std::string& userID, bool linked) override;

    void insertRefreshToken(const RefreshTokenRecord& token) override;
    std::optional<RefreshTokenRecord> refreshToken(const std::string& hash) override;
    void markRefreshTokenReplaced(const std::string& hash, double at) override;
    void revokeRefreshFamily(const std::string& family) override;
    void revokeUserRefreshTokens(const std::string& userID) override;

    void insertOobCode(const std::string& hash, const std::string& userID, const std::string& kind,
                       double expiresAt) override;
    std::optional<std::string> consumeOobCode(const std::string& hash, const std::string& kind, double now) override;

    class Connection;

private:
    class Lease;
    Lease acquire();
    void release(Connection* connection);

    std::string url_;
    std::vector<std::unique_ptr<Connection>> connections_;
    std::vector<Connection*> idle_;
    std::mutex mutex_;
    std::condition_variable available_;
};

} // namespace tavelo::cloud
