#pragma once

// The pieces of the SQLite calendar store shared by its reader, its writer
// and the service: the statements of the file format, its records, the
// connection and statement handles with the classification of failures, and
// the entry points of reading, checking and writing. Internal to the
// services layer.

#include "services/LocalCalendarService.h"

#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <QFile>
#include <QString>

#include <sqlite3.h>

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace tavelo::storedb {

using Kind = SQLitePersistenceError::Kind;

inline constexpr const char* kSchema =
    "CREATE TABLE metadata (\n    id INTEGER PRIMARY KEY CHECK (id = 1),\n    payload BLOB NOT NULL\n);\n"
    "CREATE TABLE events (\n    id TEXT PRIMARY KEY,\n    payload BLOB NOT NULL\n);";
inline constexpr const char* kReadMetadata = "SELECT payload FROM metadata WHERE id = 1";
// The key comes along so that a row filed under the wrong id is caught here.
inline constexpr const char* kReadEvents = "SELECT id, payload FROM events";
inline constexpr const char* kWriteMetadata =
    "INSERT INTO metadata(id, payload) VALUES(1, ?) ON CONFLICT(id) DO UPDATE SET payload = excluded.payload";
inline constexpr const char* kWriteEvent =
    "INSERT INTO events(id, payload) VALUES(?, ?) ON CONFLICT(id) DO UPDATE SET payload = excluded.payload";
inline constexpr const char* kDeleteEvent = "DELETE FROM events WHERE id = ?";

inline constexpr std::int64_t kCurrentVersion = AppSnapshot::kCurrentVersion;

// Versions compare as unsigned numbers, so a negative one counts as newer.
inline bool isUnsupported(std::int64_t version) {
    return static_cast<std::uint64_t>(version) > static_cast<std::uint64_t>(kCurrentVersion);
}

// --- records of the file format ----------------------------------------------

// The metadata row: the snapshot with its events emptied, and the event ids in
// snapshot order.
struct SQLiteMetadata {
    AppSnapshot snapshot;
    std::vector<UUID> eventOrder;

    // The row of `full`, written straight from its events rather than from
    // a record holding a copy of their ids.
    static void encode(JsonWriter& w, const AppSnapshot& full) {
        const AppSnapshot withoutEvents(full.version, full.accounts, full.calendars, {}, full.tags, full.preferences,
                                        full.googleSyncStates);
        w.beginObject();
        writeField(w, "snapshot", withoutEvents);
        w.key("eventOrder");
        w.beginArray();
        // The ids as the writer spells them ("…", comma-separated), filled
        // into room made once: this list is most of the row.
        constexpr std::size_t kQuotedID = 38;
        std::string& out = w.buffer();
        const std::size_t count = full.events.size();
        std::size_t at = out.size();
        if (count > 0) out.resize(at + count * (kQuotedID + 1) - 1);
        for (std::size_t i = 0; i < count; ++i) {
            if (i > 0) out[at++] = ',';
            out[at++] = '"';
            full.events[i].id.write(out.data() + at);
            at += kQuotedID - 2;
            out[at++] = '"';
        }
        w.endArray();
        w.endObject();
    }
    static SQLiteMetadata decode(const JsonValue& v) {
        const auto o = v.object();
        return SQLiteMetadata{
            .snapshot = required<AppSnapshot>(o, "snapshot"),
            .eventOrder = required<std::vector<UUID>>(o, "eventOrder"),
        };
    }
};

// Reads only the version of an old-format JSON file, before anything else of
// it is decoded.
struct SnapshotVersion {
    std::int64_t version = 0;

    static SnapshotVersion decode(const JsonValue& v) {
        return SnapshotVersion{.version = required<std::int64_t>(v.object(), "version")};
    }
};

// --- file system --------------------------------------------------------------

inline QByteArray nativePath(const QString& path) { return QFile::encodeName(path); }

// --- SQLite handles -------------------------------------------------------------

// Failures that say nothing about the content: the file is locked, cannot be
// got at right now, or the machine is short of something. A read that meets
// one fails; it never declares the content corrupt.
inline bool isTransient(int resultCode) {
    switch (resultCode & 0xFF) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_NOMEM:
    case SQLITE_READONLY:
    case SQLITE_IOERR:
    case SQLITE_CANTOPEN:
    case SQLITE_FULL:
    case SQLITE_PERM:
    case SQLITE_AUTH:
    case SQLITE_PROTOCOL:
    case SQLITE_INTERRUPT:
        return true;
    default:
        return false;
    }
}

class Connection {
public:
    Connection(const QString& path, int flags) {
        const int rc = sqlite3_open_v2(nativePath(path).constData(), &db_, flags, nullptr);
        if (rc != SQLITE_OK || !db_) {
            std::string detail = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
            close();
            throw SQLitePersistenceError(Kind::cannotOpen, std::move(detail));
        }
    }
    ~Connection() { close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    sqlite3* get() const { return db_; }
    std::string message() const { return sqlite3_errmsg(db_); }

    void execute(const char* sql) {
        if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
            throw SQLitePersistenceError(Kind::operation, std::string(sql) + ": " + message());
    }

    void close() {
        if (db_) sqlite3_close_v2(std::exchange(db_, nullptr));
    }

private:
    sqlite3* db_ = nullptr;
};

class Statement {
public:
    // `failure` says what a failed prepare means: corrupt content when
    // reading, a failed operation when writing.
    Statement(Connection& connection, const char* sql, Kind failure) : connection_(connection), sql_(sql) {
        const int rc = sqlite3_prepare_v2(connection.get(), sql, -1, &stmt_, nullptr);
        if (rc != SQLITE_OK || !stmt_) {
            if (failure == Kind::corrupt && isTransient(rc)) failure = Kind::operation;
            throw SQLitePersistenceError(failure, std::string("prepare ") + sql + ": " + connection.message());
        }
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    sqlite3_stmt* get() const { return stmt_; }

    void bindText(int index, std::string_view text) {
        check(sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT));
    }
    void bindBlob(int index, std::string_view bytes, sqlite3_destructor_type lifetime = SQLITE_TRANSIENT) {
        check(sqlite3_bind_blob(stmt_, index, bytes.data(), static_cast<int>(bytes.size()), lifetime));
    }
    // Runs a statement that returns no rows, then makes it ready for the next
    // bindings.
    void run() {
        if (sqlite3_step(stmt_) != SQLITE_DONE) fail("step");
        sqlite3_reset(stmt_);
    }

private:
    void check(int rc) {
        if (rc != SQLITE_OK) fail("bind");
    }
    [[noreturn]] void fail(const char* what) {
        throw SQLitePersistenceError(Kind::operation, std::string(what) + " " + sql_ + ": " + connection_.message());
    }

    Connection& connection_;
    const char* sql_;
    sqlite3_stmt* stmt_ = nullptr;
};

// A failure while reading: the content cannot be trusted, unless SQLite only
// could not get at it right now (locked, out of memory).
[[noreturn]] inline void failRead(const Connection& connection, int rc, std::string what) {
    throw SQLitePersistenceError(isTransient(rc) ? Kind::operation : Kind::corrupt, what + ": " + connection.message());
}

[[noreturn]] inline void corrupt(std::string what) { throw SQLitePersistenceError(Kind::corrupt, std::move(what)); }

inline std::string_view columnBytes(sqlite3_stmt* stmt, int column = 0) {
    const void* data = sqlite3_column_blob(stmt, column);
    const int size = sqlite3_column_bytes(stmt, column);
    if (!data || size <= 0) return {};
    return {static_cast<const char*>(data), static_cast<std::size_t>(size)};
}


// --- reading and checking (StoreReader.cpp) ----------------------------------------

// A rollback journal left by a killed writer is rolled back first.
void rollBackHotJournal(const QString& path);
// The whole snapshot, metadata and rows from one read transaction; anything
// that means the content cannot be trusted is `corrupt`.
AppSnapshot readDatabase(const QString& path);
// What SQLite's own structural check says of the file: true when it finds
// nothing. Throws when the check cannot run (locked, out of memory).
bool passesQuickCheck(const QString& path);

// --- writing (StoreWriter.cpp) ------------------------------------------------------

// Upserts and deletes single event rows, each statement prepared on first
// use and finalized with the writer.
class EventRows {
public:
    EventRows(Connection& db, LocalCalendarService::WriteStats& stats) : db_(db), stats_(stats) {}

    void upsert(const CalendarEvent& event) {
        if (!upsert_) upsert_.emplace(db_, kWriteEvent, Kind::operation);
        char id[36];
        event.id.write(id);
        buffer_.clear();
        JsonWriter w(buffer_);
        event.encode(w);
        upsert_->bindText(1, std::string_view(id, sizeof id));
        upsert_->bindBlob(2, buffer_);
        upsert_->run();
        ++stats_.eventRowsWritten;
    }

    void remove(const UUID& eventID) {
        if (!remove_) remove_.emplace(db_, kDeleteEvent, Kind::operation);
        char id[36];
        eventID.write(id);
        remove_->bindText(1, std::string_view(id, sizeof id));
        remove_->run();
        ++stats_.eventRowsDeleted;
    }

private:
    Connection& db_;
    LocalCalendarService::WriteStats& stats_;
    std::optional<Statement> upsert_;
    std::optional<Statement> remove_;
    std::string buffer_;
};


// Upserts every event of `current` that is new or differs from its value in
// `old`, and deletes the rows of events that are gone.
void writeEventChanges(const std::vector<CalendarEvent>& old, const std::vector<CalendarEvent>& current,
                       EventRows& rows);
// Writes the rows of an edit that put current[begin, end) where the
// `replaced` events stood.
void writeEditedRows(const std::vector<CalendarEvent>& current, std::size_t begin, std::size_t end,
                     const std::vector<std::pair<std::size_t, CalendarEvent>>& replaced, EventRows& rows);

// Page cache beyond the metadata row: the b-tree pages on the way to the
// changed rows, and the rows themselves.
inline constexpr std::size_t kSpareCacheKiB = 8192;

inline void setCacheSize(Connection& db, std::size_t kib) {
    const std::string pragma = "PRAGMA cache_size = -" + std::to_string(kib);
    db.execute(pragma.c_str());
}

// Writes `snapshot` in one transaction: the metadata row, then the event rows
// through `writeEventRows`.
template <class WriteEventRows>
void writeDatabase(const AppSnapshot& snapshot, Connection& db, LocalCalendarService::WriteStats& stats,
                   WriteEventRows&& writeEventRows) {
    std::string payload;
    payload.reserve(4096 + 39 * snapshot.events.size());
    {
        JsonWriter w(payload);
        SQLiteMetadata::encode(w, snapshot);
    }
    // Room in the page cache for every page the transaction changes. When
    // the cache runs out SQLite spills pages to the file before the commit,
    // and each spill first syncs the journal: with the default cache a
    // one-event save of a large workspace synced eight times instead of four.
    // Pages are taken only as they are needed.
    setCacheSize(db, kSpareCacheKiB + 3 * payload.size() / 1024);
    // Every save replaces the metadata row, about 40 bytes per event, and
    // frees the overflow pages of the old one. With secure deletion on (the
    // default of some builds) each freed page is overwritten with zeros and
    // therefore journaled: for 50,000 events, 480 journal pages and 960 page
    // writes per save instead of 10 and 490. FAST still clears deleted
    // content inside the pages a save writes anyway.
    db.execute("PRAGMA secure_delete = FAST");
    db.execute("BEGIN IMMEDIATE");
    try {
        {
            Statement upsert(db, kWriteMetadata, Kind::operation);
            // The payload outlives the statement: SQLite need not copy it.
            upsert.bindBlob(1, payload, SQLITE_STATIC);
            upsert.run();
            stats.metadataRowsWritten = 1;
        }

        EventRows rows(db, stats);
        writeEventRows(rows);
        db.execute("COMMIT");
    } catch (...) {
        sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

} // namespace tavelo::storedb

namespace tavelo {

// A second thread that the service keeps, so that a save neither starts nor
// ends one (with the allocator's per-thread set-up, that costs milliseconds).
class LocalCalendarService::WriteThread {
public:
    // Throws std::system_error when no thread can be had.
    WriteThread() : thread_([this] { serve(); }) {}
    ~WriteThread() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    WriteThread(const WriteThread&) = delete;
    WriteThread& operator=(const WriteThread&) = delete;

    // Runs `job` there while `meanwhile`, which must not throw, runs here,
    // and returns once both are done, with the job's failure if it failed.
    void run(const std::function<void()>& job, const std::function<void()>& meanwhile) {
        {
            const std::lock_guard lock(mutex_);
            job_ = &job;
            failure_ = nullptr;
        }
        wake_.notify_one();
        meanwhile();
        std::exception_ptr failure;
        {
            std::unique_lock lock(mutex_);
            done_.wait(lock, [this] { return job_ == nullptr; });
            failure = std::exchange(failure_, nullptr);
        }
        if (failure) std::rethrow_exception(failure);
    }

private:
    void serve() {
        std::unique_lock lock(mutex_);
        while (true) {
            wake_.wait(lock, [this] { return stopping_ || job_ != nullptr; });
            if (!job_) return;
            const auto* job = job_;
            lock.unlock();
            std::exception_ptr failure;
            try {
                (*job)();
            } catch (...) {
                failure = std::current_exception();
            }
            lock.lock();
            failure_ = std::move(failure);
            job_ = nullptr;
            done_.notify_one();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable done_;
    const std::function<void()>* job_ = nullptr;
    std::exception_ptr failure_;
    bool stopping_ = false;
    std::thread thread_;
};


} // namespace tavelo
