#pragma once

#include "models/AppSnapshot.h"
#include "support/Date.h"
#include "support/Error.h"
#include "support/UUID.h"

#include <QCoro/QCoroTask>

#include <optional>
#include <set>
#include <variant>
#include <vector>

namespace tavelo {

struct CalendarEventQuery {
    std::optional<std::set<UUID>> calendarIDs;
    std::optional<DateInterval> interval;
    bool includesGeneratedBusyBlocks = false;

    bool operator==(const CalendarEventQuery&) const = default;
};

// A warning that comes with a successful load: the stored data could not be
// used, was moved aside, and an empty state was started instead.
class CalendarServiceWarning final : public Error {
public:
    struct CorruptData {
        QString backupPath;
        bool operator==(const CorruptData&) const = default;
    };
    struct UnsupportedVersion {
        std::int64_t version;
        QString backupPath;
        bool operator==(const UnsupportedVersion&) const = default;
    };

    static CalendarServiceWarning corruptData(QString backupPath) { return CalendarServiceWarning(CorruptData{std::move(backupPath)}); }
    static CalendarServiceWarning unsupportedVersion(std::int64_t version, QString backupPath) {
        return CalendarServiceWarning(UnsupportedVersion{version, std::move(backupPath)});
    }

    const std::variant<CorruptData, UnsupportedVersion>& value() const { return value_; }
    const QString& backupPath() const;

    std::optional<QString> errorDescription() const override;
    const char* domain() const override { return "CalendarServiceWarning"; }
    int code() const override { return static_cast<int>(value_.index()); }

    bool operator==(const CalendarServiceWarning& other) const { return value_ == other.value_; }

private:
    explicit CalendarServiceWarning(std::variant<CorruptData, UnsupportedVersion> value) : value_(std::move(value)) {}
    std::variant<CorruptData, UnsupportedVersion> value_;
};

struct CalendarLoadResult {
    AppSnapshot snapshot;
    std::optional<CalendarServiceWarning> warning;
};

struct CalendarBusyInterval {
    UUID eventID;
    UUID calendarID;
    DateInterval interval;

    bool operator==(const CalendarBusyInterval&) const = default;
};

class CalendarServiceError final : public Error {
public:
    enum class Kind { writeFailed };
    explicit CalendarServiceError(Kind kind = Kind::writeFailed) : kind_(kind) {}
    std::optional<QString> errorDescription() const override;
    const char* domain() const override { return "CalendarServiceError"; }
    int code() const override { return static_cast<int>(kind_); }

private:
    Kind kind_;
};

// What stores calendar data for a workspace. Every operation may suspend and
// may fail. The three mutating operations return every event after the
// change, not only the changed ones.
class CalendarService {
public:
    virtual ~CalendarService() = default;

    virtual QCoro::Task<CalendarLoadResult> load() = 0;
    virtual QCoro::Task<void> save(AppSnapshot snapshot) = 0;
    virtual QCoro::Task<std::vector<Account>> fetchAccounts() = 0;
    // With nothing, every calendar; with a set, the calendars whose account is
    // in it.
    virtual QCoro::Task<std::vector<CalendarSource>> fetchCalendars(std::optional<std::set<UUID>> accountIDs) = 0;
    virtual QCoro::Task<std::vector<CalendarEvent>> fetchEvents(CalendarEventQuery query) = 0;
    virtual QCoro::Task<std::vector<CalendarEvent>> createEvents(std::vector<CalendarEvent> events) = 0;
    virtual QCoro::Task<std::vector<CalendarEvent>> updateEvents(UUID groupID, std::vector<CalendarEvent> events) = 0;
    virtual QCoro::Task<std::vector<CalendarEvent>> deleteEvents(UUID groupID) = 0;
    virtual QCoro::Task<std::vector<CalendarBusyInterval>> freeBusy(std::set<UUID> calendarIDs, DateInterval interval,
                                                                    std::optional<UUID> excludingGroupID) = 0;
};

} // namespace tavelo
