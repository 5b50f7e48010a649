// The SQLite calendar store. The file is a document store: one metadata row
// holds the snapshot without its events plus the order of the events, and one
// row per event holds that event, all as JSON. A save compares the new
// snapshot with the previous one and touches only the rows that changed; the
// event operations edit the cached events in place and know those rows
// without comparing the whole list.
//
// Everything below the coroutine operations runs synchronously: there is no
// suspension point inside a read or a write.

#include "services/LocalCalendarService.h"

#include "services/StoreDatabase.h"
#include "services/StoreFiles.h"
#include "services/StoreWorker.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QUrl>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>
#include <system_error>
#include <type_traits>
#include <utility>

namespace tavelo {

Q_LOGGING_CATEGORY(lcStore, "tavelo.store")

using namespace storedb;
using Kind = SQLitePersistenceError::Kind;

// --- LocalCalendarService -----------------------------------------------------------

struct LocalCalendarService::EventEdit {
    // Where the new events stand in the edited list.
    std::size_t begin = 0;
    std::size_t end = 0;
    // The events taken out, each with its place before the edit, first place
    // first.
    std::vector<std::pair<std::size_t, CalendarEvent>> replaced;
};

LocalCalendarService::LocalCalendarService(QString fileURL, Seed seed, Now now)
    : fileURL_(std::move(fileURL)), seed_(seed ? std::move(seed) : Seed(&AppSnapshot::empty)),
      now_(now ? std::move(now) : Now(&Date::now)) {
    const QUrl url(fileURL_);
    path_ = url.isLocalFile() ? url.toLocalFile() : fileURL_;
    lock_ = std::make_unique<StoreFileLock>(path_);
    worker_ = std::make_unique<StoreWorker>();
}

LocalCalendarService::~LocalCalendarService() {
    stopping_ = true;
    // The jobs handed over so far finish while everything they use is alive.
    worker_.reset();
}

QString LocalCalendarService::backupPath(const char* label) const {
    const QFileInfo info(path_);
    return info.dir().filePath(QStringLiteral("%1.%2.%3.%4.json")
                                   .arg(info.completeBaseName())
                                   .arg(now_().unixMilliseconds())
                                   .arg(UUID::random().toString(), QString::fromLatin1(label)));
}

CalendarLoadResult LocalCalendarService::recover(const char* label, std::optional<std::int64_t> unsupportedVersion) {
    // Only the process that holds the file may move it aside; any other
    // fails its load and leaves the file to its owner.
    lock_->require();
    const QString backup = backupPath(label);
    moveItem(path_, backup);
    AppSnapshot seed = seed_();
    cachedSnapshot_ = seed;
    cachedIDsDistinct_ = false;
    auto warning = unsupportedVersion ? CalendarServiceWarning::unsupportedVersion(*unsupportedVersion, backup)
                                      : CalendarServiceWarning::corruptData(backup);
    return CalendarLoadResult{std::move(seed), std::move(warning)};
}

CalendarLoadResult LocalCalendarService::loadFromDisk() {
    if (cachedSnapshot_) return CalendarLoadResult{*cachedSnapshot_, std::nullopt};

    // The holder of the lock is the only writer, so whatever temporary file
    // lies beside the state file was left by an interrupted replacement.
    if (lock_->tryAcquire()) removeLeftoverTemporaries(path_);

    if (!QFileInfo::exists(path_)) {
        cachedSnapshot_ = seed_();
        cachedIDsDistinct_ = false;
        return CalendarLoadResult{*cachedSnapshot_, std::nullopt};
    }

    if (isSQLiteDatabase(path_)) {
        AppSnapshot snapshot;
        try {
            snapshot = readDatabase(path_);
        } catch (const SQLitePersistenceError& error) {
            if (error.kind() != Kind::corrupt) throw;
            return recover("corrupt", std::nullopt);
        }
        // The read would have failed on a hot journal, so a journal still
        // here is one a killed writer began and never used: for the holder of
        // the lock, nobody else's.
        if (lock_->isHeld()) QFile::remove(path_ + QStringLiteral("-journal"));
        if (isUnsupported(snapshot.version)) return recover("unsupported", snapshot.version);
        snapshot.version = AppSnapshot::kCurrentVersion;
        cachedSnapshot_ = snapshot;
        // The reader refuses an event listed twice.
        cachedIDsDistinct_ = true;
        scheduleIntegrityCheck();
        return CalendarLoadResult{std::move(snapshot), std::nullopt};
    }

    // The old format: one JSON document.
    const QByteArray bytes = readWholeFile(path_);
    const std::string_view text(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    AppSnapshot migrated;
    try {
        JsonDocumentParser parser;
        const auto version = parser.decode<SnapshotVersion>(text).version;
        if (isUnsupported(version)) return recover("unsupported", version);
        migrated = parser.decode<AppSnapshot>(text);
    } catch (const JsonDecodingError&) {
        return recover("corrupt", std::nullopt);
    }
    migrated.version = AppSnapshot::kCurrentVersion;
    cachedSnapshot_ = migrated;
    cachedIDsDistinct_ = false;
    if (!isSQLiteDatabase(path_)) cachedIDsDistinct_ = write(migrated, nullptr);
    return CalendarLoadResult{std::move(migrated), std::nullopt};
}

void LocalCalendarService::scheduleIntegrityCheck() {
    // Queued behind the load, so the caller has its snapshot while the check
    // runs; the next operation waits for it.
    worker_->start([this] {
        if (!stopping_) checkIntegrity();
    });
}

void LocalCalendarService::checkIntegrity() {
    if (!cachedSnapshot_ || !lock_->isHeld()) return;
    try {
        if (passesQuickCheck(path_)) return;
        qCWarning(lcStore) << "the calendar file is damaged; rewriting it from what was read" << path_;
        WriteStats stats;
        replaceWithDatabase(*cachedSnapshot_, stats, "damaged");
        ++repairCount_;
    } catch (const std::exception& error) {
        // The file stays as it is; the next load checks it again.
        qCWarning(lcStore) << "integrity check failed:" << error.what();
    }
}

bool LocalCalendarService::write(const AppSnapshot& snapshot, const AppSnapshot* previous, const EventEdit* edit,
                                 const std::function<void()>& meanwhile) {
    const QFileInfo info(path_);
    if (!QDir().mkpath(info.absolutePath()))
        throw FileSystemError(FileSystemError::Operation::createDirectory, info.absolutePath(), errno);
    // No other process writes this file while this one has it open.
    lock_->require();

    WriteStats stats;
    bool checked = true;
    if (info.exists() && isSQLiteDatabase(path_)) {
        // Reads the path and the snapshot and writes only its own locals, so
        // that it may run on another thread.
        const std::function<void()> update = [&] {
            std::optional<AppSnapshot> stored;
            if (edit || previous)
                checked = false;
            else
                previous = &stored.emplace(readDatabase(path_));
            Connection db(path_, SQLITE_OPEN_READWRITE);
            if (edit) {
                writeDatabase(snapshot, db, stats, [&](EventRows& rows) {
                    writeEditedRows(snapshot.events, edit->begin, edit->end, edit->replaced, rows);
                });
            } else {
                writeDatabase(snapshot, db, stats,
                              [&](EventRows& rows) { writeEventChanges(previous->events, snapshot.events, rows); });
            }
        };
        if (meanwhile && !writeThread_) {
            try {
                writeThread_ = std::make_unique<WriteThread>();
            } catch (const std::system_error&) {
                // No second thread: one after the other.
            }
        }
        if (meanwhile && writeThread_) {
            writeThread_->run(update, meanwhile);
        } else {
            update();
            if (meanwhile) meanwhile();
        }
    } else {
        replaceWithDatabase(snapshot, stats, "legacy");
        if (meanwhile) meanwhile();
    }
    lastWriteStats_ = stats;
    return checked;
}

void LocalCalendarService::replaceWithDatabase(const AppSnapshot& snapshot, WriteStats& stats, const char* backupLabel) {
    const QFileInfo info(path_);
    const bool existed = info.exists();
    const QString temporary = temporaryDatabasePath(path_);

    std::optional<Connection> db;
    db.emplace(temporary, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_EXCLUSIVE);
    try {
        db->execute(kSchema);
        writeDatabase(snapshot, *db, stats, [&](EventRows& rows) { writeEventChanges({}, snapshot.events, rows); });
        db.reset();
        if (!existed) {
            moveItem(temporary, path_);
        } else {
            copyItem(path_, backupPath(backupLabel));
            replaceItem(path_, temporary);
        }
    } catch (...) {
        db.reset();
        // Best effort: the original failure is what the caller needs to see.
        QFile::remove(temporary);
        QFile::remove(temporary + QStringLiteral("-journal"));
        throw;
    }
}

// --- operations -------------------------------------------------------------------
//
// Each operation is one job on the worker: the reads, the writes and the
// copies of large lists happen there, and the caller's coroutine only hands
// the job over and takes its answer.

void LocalCalendarService::ensureLoaded() {
    if (!cachedSnapshot_) loadFromDisk();
}

void LocalCalendarService::saveNow(AppSnapshot snapshot) {
    snapshot.version = AppSnapshot::kCurrentVersion;
    const bool checked = write(snapshot, cachedSnapshot_ ? &*cachedSnapshot_ : nullptr);
    // Compared with distinct ids, saved events have distinct ids too.
    cachedIDsDistinct_ = checked || (cachedSnapshot_ && cachedIDsDistinct_);
    cachedSnapshot_ = std::move(snapshot);
}

QCoro::Task<CalendarLoadResult> LocalCalendarService::load() {
    return worker_->run([this] { return loadFromDisk(); });
}

QCoro::Task<void> LocalCalendarService::save(AppSnapshot snapshot) {
    return worker_->run([this, snapshot = std::move(snapshot)]() mutable { saveNow(std::move(snapshot)); });
}

QCoro::Task<void> LocalCalendarService::drain() {
    return worker_->run([] {});
}

// Moving events neither allocates nor throws, so once the room is reserved
// the edit below cannot fail halfway, nor can taking it back.
static_assert(std::is_nothrow_move_constructible_v<CalendarEvent> && std::is_nothrow_move_assignable_v<CalendarEvent>);

std::vector<CalendarEvent> LocalCalendarService::replaceGroupAndSave(const std::optional<UUID>& groupID,
                                                                     std::vector<CalendarEvent> events) {
    AppSnapshot& snapshot = *cachedSnapshot_;
    auto& list = snapshot.events;
    EventEdit edit;
    std::size_t at = list.size();
    std::size_t members = 0;
    if (groupID) {
        const auto inGroup = [&](const CalendarEvent& event) { return event.groupID == *groupID; };
        const auto first = std::find_if(list.begin(), list.end(), inGroup);
        at = static_cast<std::size_t>(first - list.begin());
        members = static_cast<std::size_t>(std::count_if(first, list.end(), inGroup));
    }
    edit.replaced.reserve(members);
    // Room for the result, growing as inserting would, so that appending a
    // few events does not move the whole list each time.
    const std::size_t size = list.size() - members + events.size();
    if (size > list.capacity()) list.reserve(std::max(size, 2 * list.capacity()));

    if (members > 0) {
        std::size_t kept = at;
        for (std::size_t i = at; i < list.size(); ++i) {
            if (list[i].groupID == *groupID)
                edit.replaced.emplace_back(i, std::move(list[i]));
            else if (kept++ != i)
                list[kept - 1] = std::move(list[i]);
        }
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(kept), list.end());
    }
    list.insert(list.begin() + static_cast<std::ptrdiff_t>(at), std::make_move_iterator(events.begin()),
                std::make_move_iterator(events.end()));
    edit.begin = at;
    edit.end = at + events.size();
    const int version = snapshot.version;
    snapshot.version = AppSnapshot::kCurrentVersion;

    // The answer is a copy of the edited list, made while the database is
    // written, and dropped if the write fails.
    std::vector<CalendarEvent> result;
    std::exception_ptr copyFailure;
    const std::function<void()> copyList = [&]() noexcept {
        try {
            result = list;
        } catch (...) {
            copyFailure = std::current_exception();
        }
    };
    try {
        const bool checked = write(snapshot, nullptr, &edit, copyList);
        cachedIDsDistinct_ = checked || cachedIDsDistinct_;
    } catch (...) {
        // Everything else kept its order, so each replaced event goes back to
        // its old place, first place first.
        snapshot.version = version;
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(edit.begin),
                   list.begin() + static_cast<std::ptrdiff_t>(edit.end));
        for (auto& [place, event] : edit.replaced)
            list.insert(list.begin() + static_cast<std::ptrdiff_t>(place), std::move(event));
        throw;
    }
    // Saved: the edit stays even when there is no room for the answer.
    if (copyFailure) std::rethrow_exception(copyFailure);
    return result;
}

QCoro::Task<std::vector<Account>> LocalCalendarService::fetchAccounts() {
    return worker_->run([this] {
        ensureLoaded();
        return cachedSnapshot_->accounts;
    });
}

QCoro::Task<std::vector<CalendarSource>> LocalCalendarService::fetchCalendars(std::optional<std::set<UUID>> accountIDs) {
    return worker_->run([this, accountIDs = std::move(accountIDs)] {
        ensureLoaded();
        if (!accountIDs) return cachedSnapshot_->calendars;
        std::vector<CalendarSource> result;
        for (const auto& calendar : cachedSnapshot_->calendars)
            if (calendar.accountID && accountIDs->contains(*calendar.accountID)) result.push_back(calendar);
        return result;
    });
}

namespace {

bool matches(const CalendarEvent& event, const CalendarEventQuery& query) {
    if (query.calendarIDs && !query.calendarIDs->contains(event.calendarID)) return false;
    if (query.interval && (event.start >= query.interval->end || event.end <= query.interval->start)) return false;
    return query.includesGeneratedBusyBlocks || !event.isGeneratedBusyBlock;
}

} // namespace

std::vector<CalendarEvent> LocalCalendarService::matchingEvents(const CalendarEventQuery& query) {
    ensureLoaded();
    std::vector<CalendarEvent> result;
    for (const auto& event : cachedSnapshot_->events)
        if (matches(event, query)) result.push_back(event);
    return result;
}

QCoro::Task<std::vector<CalendarEvent>> LocalCalendarService::fetchEvents(CalendarEventQuery query) {
    return worker_->run([this, query = std::move(query)] { return matchingEvents(query); });
}

QCoro::Task<std::vector<CalendarEvent>> LocalCalendarService::createEvents(std::vector<CalendarEvent> events) {
    return worker_->run([this, events = std::move(events)]() mutable {
        ensureLoaded();
        return replaceGroupAndSave(std::nullopt, std::move(events));
    });
}

QCoro::Task<std::vector<CalendarEvent>> LocalCalendarService::updateEvents(UUID groupID, std::vector<CalendarEvent> events) {
    return worker_->run([this, groupID, events = std::move(events)]() mutable {
        ensureLoaded();
        if (cachedIDsDistinct_) return replaceGroupAndSave(groupID, std::move(events));
        // Events sharing an id pair up in ways only the full comparison follows.
        AppSnapshot snapshot = *cachedSnapshot_;
        auto& list = snapshot.events;
        const auto inGroup = [&](const CalendarEvent& event) { return event.groupID == groupID; };
        const auto index = static_cast<std::size_t>(std::find_if(list.begin(), list.end(), inGroup) - list.begin());
        std::erase_if(list, inGroup);
        const auto at = std::min(index, list.size());
        list.insert(list.begin() + static_cast<std::ptrdiff_t>(at), std::make_move_iterator(events.begin()),
                    std::make_move_iterator(events.end()));
        saveNow(std::move(snapshot));
        return cachedSnapshot_->events;
    });
}

QCoro::Task<std::vector<CalendarEvent>> LocalCalendarService::deleteEvents(UUID groupID) {
    return worker_->run([this, groupID] {
        ensureLoaded();
        if (cachedIDsDistinct_) return replaceGroupAndSave(groupID, {});
        AppSnapshot snapshot = *cachedSnapshot_;
        std::erase_if(snapshot.events, [&](const CalendarEvent& event) { return event.groupID == groupID; });
        saveNow(std::move(snapshot));
        return cachedSnapshot_->events;
    });
}

QCoro::Task<std::vector<CalendarBusyInterval>> LocalCalendarService::freeBusy(std::set<UUID> calendarIDs,
                                                                              DateInterval interval,
                                                                              std::optional<UUID> excludingGroupID) {
    return worker_->run([this, calendarIDs = std::move(calendarIDs), interval, excludingGroupID] {
        const CalendarEventQuery query{
            .calendarIDs = calendarIDs, .interval = interval, .includesGeneratedBusyBlocks = true};
        std::vector<CalendarBusyInterval> result;
        for (const auto& event : matchingEvents(query)) {
            if (event.availability != Availability::busy) continue;
            if (excludingGroupID && event.groupID == *excludingGroupID) continue;
            result.push_back(CalendarBusyInterval{event.id, event.calendarID, DateInterval{event.start, event.end}});
        }
        return result;
    });
}

} // namespace tavelo