#pragma once

#include "services/CalendarService.h"

#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

struct sqlite3;

namespace tavelo {

class StoreFileLock;
class StoreWorker;

// Failures of the SQLite store. They carry no text of their own: the user
// sees the generic description.
class SQLitePersistenceError final : public Error {
public:
    enum class Kind { cannotOpen, corrupt, operation };
    SQLitePersistenceError(Kind kind, std::string detail = {}) : kind_(kind), detail_(std::move(detail)) {}

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }
    const char* domain() const override { return "SQLitePersistenceError"; }
    int code() const override { return static_cast<int>(kind_); }

private:
    Kind kind_;
    std::string detail_;
};

// A failed file-system step of the store: creating the directory, reading the
// state file, moving it to a backup, copying or replacing it. `posixError` is
// the errno of the failed call, when there was one.
class FileSystemError final : public Error {
public:
    enum class Operation { createDirectory, open, read, move, copy, replace, lock };
    FileSystemError(Operation operation, QString path, int posixError = 0)
        : operation_(operation), path_(std::move(path)), posixError_(posixError) {}

    Operation operation() const { return operation_; }
    const QString& path() const { return path_; }
    int posixError() const { return posixError_; }
    const char* domain() const override { return "FileSystemError"; }
    int code() const override { return posixError_; }

private:
    Operation operation_;
    QString path_;
    int posixError_;
};

// The calendar store of one workspace: a SQLite file (still named
// "state.json" for historical reasons) holding one metadata row and one row
// per event, each as JSON. A save writes only the rows that changed. An old
// plain-JSON file is migrated on load; unreadable or newer data is moved to a
// backup beside the file and an empty state starts instead.
//
// Called from the main thread. Every operation is one job on a worker thread
// that the service owns; jobs run one at a time in the order they were
// called, so the service stays serialised while the main thread only hands
// work over and takes the answers. The cached state belongs to the worker:
// `cachedSnapshot`, `lastWriteStats` and `repairCount` may be read only while
// no operation is under way.
//
// Deliberately safer than a plain reading of the file format:
// - a rollback journal left by a killed process is rolled back before the
//   read-only read, and a file that cannot be read right now (locked,
//   read-only, I/O error) fails the load instead of being called corrupt;
// - metadata and rows are read in one read transaction;
// - a row filed under another key than its event's id is corrupt;
// - after a load, SQLite's quick check runs behind the answer, and a damaged
//   file is rewritten from what was read, the damaged one kept as a backup
//   labelled "damaged";
// - the service holds an exclusive lock beside the file while it lives: only
//   the holder writes, moves or repairs the file, and only it removes the
//   temporary files an interrupted replacement left behind.
class LocalCalendarService final : public CalendarService {
public:
    using Seed = std::function<AppSnapshot()>;
    using Now = std::function<Date()>;

    explicit LocalCalendarService(QString fileURL, Seed seed = {}, Now now = {});
    ~LocalCalendarService() override;

    const QString& fileURL() const { return fileURL_; }
    const std::optional<AppSnapshot>& cachedSnapshot() const { return cachedSnapshot_; }

    QCoro::Task<CalendarLoadResult> load() override;
    QCoro::Task<void> save(AppSnapshot snapshot) override;
    QCoro::Task<std::vector<Account>> fetchAccounts() override;
    QCoro::Task<std::vector<CalendarSource>> fetchCalendars(std::optional<std::set<UUID>> accountIDs) override;
    QCoro::Task<std::vector<CalendarEvent>> fetchEvents(CalendarEventQuery query) override;
    QCoro::Task<std::vector<CalendarEvent>> createEvents(std::vector<CalendarEvent> events) override;
    QCoro::Task<std::vector<CalendarEvent>> updateEvents(UUID groupID, std::vector<CalendarEvent> events) override;
    QCoro::Task<std::vector<CalendarEvent>> deleteEvents(UUID groupID) override;
    QCoro::Task<std::vector<CalendarBusyInterval>> freeBusy(std::set<UUID> calendarIDs, DateInterval interval,
                                                            std::optional<UUID> excludingGroupID) override;

    // Finishes once everything handed to the worker so far is done,
    // including the check that follows a load.
    QCoro::Task<void> drain();
    // How many times a damaged file was rewritten.
    int repairCount() const { return repairCount_; }

    // Counters of the last successful save, for benchmarks and diagnostics.
    struct WriteStats {
        int eventRowsWritten = 0;
        int eventRowsDeleted = 0;
        int metadataRowsWritten = 0;
    };
    const WriteStats& lastWriteStats() const { return lastWriteStats_; }

private:
    // The edit of one event operation, made in place in the cached events:
    // a run of new events standing where the replaced ones were.
    struct EventEdit;
    class WriteThread;

    CalendarLoadResult loadFromDisk();
    void ensureLoaded();
    void saveNow(AppSnapshot snapshot);
    std::vector<CalendarEvent> matchingEvents(const CalendarEventQuery& query);
    void scheduleIntegrityCheck();
    void checkIntegrity();
    CalendarLoadResult recover(const char* label, std::optional<std::int64_t> unsupportedVersion);
    // Writes `snapshot`. The event rows to touch come from `edit` when there
    // is one, else from comparing with `previous` (or with the file when
    // there is no previous). `meanwhile`, which must not throw, runs on this
    // thread while an existing database is written on another, after the
    // write otherwise. Answers whether the written events were checked to
    // have distinct ids.
    bool write(const AppSnapshot& snapshot, const AppSnapshot* previous, const EventEdit* edit = nullptr,
               const std::function<void()>& meanwhile = {});
    // Writes `snapshot` into a new file that replaces the state file; an
    // existing file is first copied to a backup with `backupLabel`.
    void replaceWithDatabase(const AppSnapshot& snapshot, WriteStats& stats, const char* backupLabel);
    // Replaces the cached events of `groupID` (or none, for new events) with
    // `events`, saves the cache and answers every event after the change; on
    // a failure the cache is as it was.
    std::vector<CalendarEvent> replaceGroupAndSave(const std::optional<UUID>& groupID, std::vector<CalendarEvent> events);
    QString backupPath(const char* label) const;

    QString fileURL_;
    QString path_;
    Seed seed_;
    Now now_;
    std::optional<AppSnapshot> cachedSnapshot_;
    // Whether no two cached events share an id: true for what was read from
    // a database or saved after a full check.
    bool cachedIDsDistinct_ = false;
    WriteStats lastWriteStats_;
    // Started by the first save that has work for it.
    std::unique_ptr<WriteThread> writeThread_;
    std::unique_ptr<StoreFileLock> lock_;
    int repairCount_ = 0;
    std::atomic<bool> stopping_ = false;
    // Last, so that it is the first to go: its jobs use everything above.
    std::unique_ptr<StoreWorker> worker_;
};

} // namespace tavelo
