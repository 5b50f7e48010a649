#pragma once

#include "services/CalendarService.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>

struct sqlite3;

namespace tavelo {

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
    enum class Operation { createDirectory, open, read, move, copy, replace };
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
// Used only from the main thread; its operations never suspend inside a read
// or a write. The event operations write the database on a second thread
// that the service keeps, while this one copies the list they answer with.
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
    CalendarLoadResult recover(const char* label, std::optional<std::int64_t> unsupportedVersion);
    // Writes `snapshot`. The event rows to touch come from `edit` when there
    // is one, else from comparing with `previous` (or with the file when
    // there is no previous). `meanwhile`, which must not throw, runs on this
    // thread while an existing database is written on another, after the
    // write otherwise. Answers whether the written events were checked to
    // have distinct ids.
    bool write(const AppSnapshot& snapshot, const AppSnapshot* previous, const EventEdit* edit = nullptr,
               const std::function<void()>& meanwhile = {});
    void replaceWithDatabase(const AppSnapshot& snapshot, WriteStats& stats);
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
};

} // namespace tavelo
