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

#include "services/StoreFiles.h"
#include "services/StoreWorker.h"

#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QUrl>

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace tavelo {

Q_LOGGING_CATEGORY(lcStore, "tavelo.store")

namespace {

using Kind = SQLitePersistenceError::Kind;

constexpr const char* kSchema =
    "CREATE TABLE metadata (\n    id INTEGER PRIMARY KEY CHECK (id = 1),\n    payload BLOB NOT NULL\n);\n"
    "CREATE TABLE events (\n    id TEXT PRIMARY KEY,\n    payload BLOB NOT NULL\n);";
constexpr const char* kReadMetadata = "SELECT payload FROM metadata WHERE id = 1";
// The key comes along so that a row filed under the wrong id is caught here.
constexpr const char* kReadEvents = "SELECT id, payload FROM events";
constexpr const char* kWriteMetadata =
    "INSERT INTO metadata(id, payload) VALUES(1, ?) ON CONFLICT(id) DO UPDATE SET payload = excluded.payload";
constexpr const char* kWriteEvent =
    "INSERT INTO events(id, payload) VALUES(?, ?) ON CONFLICT(id) DO UPDATE SET payload = excluded.payload";
constexpr const char* kDeleteEvent = "DELETE FROM events WHERE id = ?";

constexpr std::int64_t kCurrentVersion = AppSnapshot::kCurrentVersion;

// Versions compare as unsigned numbers, so a negative one counts as newer.
bool isUnsupported(std::int64_t version) {
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

QByteArray nativePath(const QString& path) { return QFile::encodeName(path); }

// --- SQLite handles -------------------------------------------------------------

// Failures that say nothing about the content: the file is locked, cannot be
// got at right now, or the machine is short of something. A read that meets
// one fails; it never declares the content corrupt.
bool isTransient(int resultCode) {
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
[[noreturn]] void failRead(const Connection& connection, int rc, std::string what) {
    throw SQLitePersistenceError(isTransient(rc) ? Kind::operation : Kind::corrupt, what + ": " + connection.message());
}

[[noreturn]] void corrupt(std::string what) { throw SQLitePersistenceError(Kind::corrupt, std::move(what)); }

std::string_view columnBytes(sqlite3_stmt* stmt, int column = 0) {
    const void* data = sqlite3_column_blob(stmt, column);
    const int size = sqlite3_column_bytes(stmt, column);
    if (!data || size <= 0) return {};
    return {static_cast<const char*>(data), static_cast<std::size_t>(size)};
}

// --- read -----------------------------------------------------------------------
//
// The event rows are read by two threads at once. This one steps through the
// rows and copies their payloads into chunks of consecutive rows; a helper
// thread decodes the chunks as they come. Decoding a row costs about twice as
// much as stepping to it, so whenever chunks pile up this thread decodes the
// oldest one itself, and once the rows are all read it decodes what is left
// while the helper finishes its last chunk. Each event goes straight to its
// place in the event order, and the helper is joined before the events are
// used: nothing is shared after the read.
//
// A failure belongs to the row that caused it, and the failure of the
// earliest row is the one thrown: the same error as reading the rows one after
// another and stopping at the first bad one.

// Enough rows to make handing a chunk over cheap, few enough to keep both
// threads busy to the end.
constexpr std::size_t kRowsPerChunk = 128;
// Chunks left waiting for the helper before this thread decodes one itself.
constexpr std::size_t kMaxWaitingChunks = 4;

constexpr std::size_t kNoRow = std::numeric_limits<std::size_t>::max();

// The failure of the earliest row so far, whichever thread met it.
class FirstFailure {
public:
    void record(std::size_t row, std::exception_ptr error) {
        const std::lock_guard lock(mutex_);
        if (row >= row_.load(std::memory_order_relaxed)) return;
        error_ = std::move(error);
        row_.store(row, std::memory_order_relaxed);
    }
    // Records what `fail` throws.
    template <class Fail>
    void record(std::size_t row, Fail&& fail) {
        try {
            fail();
        } catch (...) {
            record(row, std::current_exception());
        }
    }
    // The earliest failed row, or kNoRow.
    std::size_t row() const { return row_.load(std::memory_order_relaxed); }
    // Once every thread is done.
    void rethrow() const {
        if (error_) std::rethrow_exception(error_);
    }

private:
    std::mutex mutex_;
    std::atomic<std::size_t> row_{kNoRow};
    std::exception_ptr error_;
};

// The index of each id in the event order, in an open-addressing table.
class EventPositions {
public:
    static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

    explicit EventPositions(const std::vector<UUID>& order) : order_(order) {
        int bits = 4;
        while ((std::size_t{1} << bits) < 2 * order.size()) ++bits;
        shift_ = 64 - bits;
        mask_ = (std::size_t{1} << bits) - 1;
        slots_.assign(mask_ + 1, kNone);
        for (std::size_t i = 0; i < order.size(); ++i) {
            std::size_t slot = home(order[i]);
            for (; slots_[slot] != kNone; slot = (slot + 1) & mask_)
                if (order[slots_[slot]] == order[i]) corrupt("event listed twice " + order[i].toStdString());
            slots_[slot] = i;
        }
    }

    std::size_t find(const UUID& id) const {
        for (std::size_t slot = home(id);; slot = (slot + 1) & mask_) {
            const std::size_t index = slots_[slot];
            if (index == kNone || order_[index] == id) return index;
        }
    }

private:
    std::size_t home(const UUID& id) const {
        return static_cast<std::size_t>((std::hash<UUID>{}(id) * 0x9E3779B97F4A7C15ULL) >> shift_);
    }

    const std::vector<UUID>& order_;
    std::vector<std::size_t> slots_;
    std::size_t mask_ = 0;
    int shift_ = 0;
};

// Consecutive event rows: their payloads back to back, then the parser's
// padding, so that each payload is parsed where it lies.
class PayloadChunk {
public:
    static constexpr std::size_t kKeyLength = 36;

    void reset(std::size_t firstRow) {
        firstRow_ = firstRow;
        bytes_.clear();
        ends_.clear();
        keys_.clear();
    }
    // `key` is the row's id column, exactly kKeyLength characters.
    void add(std::string_view key, std::string_view payload) {
        keys_.append(key);
        bytes_.append(payload);
        ends_.push_back(bytes_.size());
    }
    // Ends the chunk: no row is added after.
    void seal() { bytes_.append(JsonDocumentParser::kPadding, '\0'); }

    std::size_t firstRow() const { return firstRow_; }
    std::size_t size() const { return ends_.size(); }
    std::string_view payload(std::size_t i) const {
        const std::size_t begin = i == 0 ? 0 : ends_[i - 1];
        return std::string_view(bytes_).substr(begin, ends_[i] - begin);
    }
    std::string_view key(std::size_t i) const { return std::string_view(keys_).substr(i * kKeyLength, kKeyLength); }

private:
    std::size_t firstRow_ = 0;
    std::string bytes_;
    std::vector<std::size_t> ends_;
    std::string keys_;
};

// Decodes event rows into their places among the events. Used by both
// threads at once; each row's failure is recorded, not thrown.
class EventRowDecoder {
public:
    EventRowDecoder(const EventPositions& positions, std::vector<CalendarEvent>& events, FirstFailure& failure)
        : positions_(positions), events_(events), claims_(events.size()), failure_(failure) {}

    void decode(const PayloadChunk& chunk, JsonDocumentParser& parser) {
        for (std::size_t i = 0; i < chunk.size(); ++i) {
            const std::size_t row = chunk.firstRow() + i;
            // Rows after a failed one are never looked at.
            if (row > failure_.row()) return;
            try {
                decodeRow(row, chunk.key(i), chunk.payload(i), parser);
            } catch (...) {
                failure_.record(row, std::current_exception());
                return;
            }
        }
    }

private:
    void decodeRow(std::size_t row, std::string_view key, std::string_view payload, JsonDocumentParser& parser) {
        CalendarEvent event;
        try {
            event = parser.decodeInPlace<CalendarEvent>(payload);
        } catch (const JsonDecodingError& error) {
            corrupt(std::string("event: ") + error.what());
        }
        // A row filed under another id than its event's would be updated and
        // deleted by the wrong key at the next edit.
        char id[PayloadChunk::kKeyLength];
        event.id.write(id);
        if (key != std::string_view(id, sizeof id)) corrupt("row key differs from its event " + event.id.toStdString());
        const std::size_t position = positions_.find(event.id);
        if (position == EventPositions::kNone) corrupt("event not in the order " + event.id.toStdString());
        if (claim(position, row, event.id)) events_[position] = std::move(event);
    }

    // True when `row` is the first to bring the event at `position`. The row
    // key and the payload can disagree, so two rows may carry the same event;
    // then the later row of the two is the faulty one, as when reading in
    // order, whichever of them is decoded first.
    bool claim(std::size_t position, std::size_t row, const UUID& id) {
        auto& holder = claims_[position]; // the earliest row so far, plus one; 0 for none
        std::size_t held = holder.load(std::memory_order_relaxed);
        do {
            if (held != 0 && held - 1 < row) corrupt("duplicate event " + id.toStdString());
        } while (!holder.compare_exchange_weak(held, row + 1, std::memory_order_relaxed));
        if (held == 0) return true;
        // A later row came first and its event is in place already; that
        // row fails, and this one leaves the event alone.
        failure_.record(held - 1, [&] { corrupt("duplicate event " + id.toStdString()); });
        return false;
    }

    const EventPositions& positions_;
    std::vector<CalendarEvent>& events_;
    std::vector<std::atomic<std::size_t>> claims_;
    FirstFailure& failure_;
};

// Full chunks in row order, from this thread to whichever decodes them, and
// the decoded ones kept for reuse.
class ChunkQueue {
public:
    std::unique_ptr<PayloadChunk> spare(std::size_t firstRow) {
        std::unique_ptr<PayloadChunk> chunk;
        {
            const std::lock_guard lock(mutex_);
            if (!spare_.empty()) {
                chunk = std::move(spare_.back());
                spare_.pop_back();
            }
        }
        if (!chunk) chunk = std::make_unique<PayloadChunk>();
        chunk->reset(firstRow);
        return chunk;
    }
    void recycle(std::unique_ptr<PayloadChunk> chunk) {
        const std::lock_guard lock(mutex_);
        spare_.push_back(std::move(chunk));
    }
    void push(std::unique_ptr<PayloadChunk> chunk) {
        {
            const std::lock_guard lock(mutex_);
            waiting_.push_back(std::move(chunk));
        }
        ready_.notify_one();
    }
    // No chunk follows.
    void close() {
        {
            const std::lock_guard lock(mutex_);
            closed_ = true;
        }
        ready_.notify_all();
    }
    // The oldest waiting chunk, waiting for one until the queue is closed;
    // nothing once it is closed and empty.
    std::unique_ptr<PayloadChunk> next() {
        std::unique_lock lock(mutex_);
        ready_.wait(lock, [this] { return !waiting_.empty() || closed_; });
        return popOldest();
    }
    // The oldest waiting chunk when more than `backlog` are waiting.
    std::unique_ptr<PayloadChunk> takeBacklog(std::size_t backlog) {
        const std::lock_guard lock(mutex_);
        return waiting_.size() > backlog ? popOldest() : nullptr;
    }

private:
    std::unique_ptr<PayloadChunk> popOldest() {
        if (waiting_.empty()) return nullptr;
        auto chunk = std::move(waiting_.front());
        waiting_.pop_front();
        return chunk;
    }

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::unique_ptr<PayloadChunk>> waiting_;
    std::vector<std::unique_ptr<PayloadChunk>> spare_;
    bool closed_ = false;
};

// The helper thread, decoding chunks until the queue is closed and empty.
// Destroying it closes the queue and joins the thread.
class DecodingHelper {
public:
    DecodingHelper(ChunkQueue& queue, EventRowDecoder& decoder, FirstFailure& failure) : queue_(queue) {
        try {
            thread_ = std::thread([&queue, &decoder, &failure] {
                try {
                    JsonDocumentParser parser;
                    while (auto chunk = queue.next()) {
                        decoder.decode(*chunk, parser);
                        queue.recycle(std::move(chunk));
                    }
                } catch (...) {
                    // Out of memory outside any row: the whole read fails.
                    failure.record(0, std::current_exception());
                }
            });
        } catch (const std::system_error&) {
            // No thread to be had: the reading thread decodes every chunk.
        }
    }
    ~DecodingHelper() {
        queue_.close();
        if (thread_.joinable()) thread_.join();
    }
    DecodingHelper(const DecodingHelper&) = delete;
    DecodingHelper& operator=(const DecodingHelper&) = delete;

private:
    ChunkQueue& queue_;
    std::thread thread_;
};

// Reads every event row into `events`, at the row's place in `order`, and
// returns how many rows there were. Every event must be listed once in the
// order and stored in exactly one row.
std::size_t readEvents(Connection& db, const std::vector<UUID>& order, std::vector<CalendarEvent>& events,
                       JsonDocumentParser& parser) {
    const EventPositions positions(order);
    events.clear();
    events.resize(order.size());
    FirstFailure failure;
    EventRowDecoder decoder(positions, events, failure);
    std::size_t rows = 0;
    {
        Statement query(db, kReadEvents, Kind::corrupt);
        ChunkQueue queue;
        std::optional<DecodingHelper> helper;
        if (order.size() > kRowsPerChunk) helper.emplace(queue, decoder, failure);

        auto chunk = queue.spare(0);
        int rc;
        while ((rc = sqlite3_step(query.get())) == SQLITE_ROW) {
            const auto key = columnBytes(query.get(), 0);
            const auto payload = columnBytes(query.get(), 1);
            if (payload.empty()) {
                failure.record(rows, [] { corrupt("empty event payload"); });
                break;
            }
            if (key.size() != PayloadChunk::kKeyLength) {
                failure.record(rows, [] { corrupt("malformed row key"); });
                break;
            }
            chunk->add(key, payload);
            ++rows;
            if (chunk->size() < kRowsPerChunk) continue;
            chunk->seal();
            queue.push(std::move(chunk));
            if (auto oldest = queue.takeBacklog(kMaxWaitingChunks)) {
                decoder.decode(*oldest, parser);
                queue.recycle(std::move(oldest));
            }
            // Reading in order would have stopped at the failed row.
            if (failure.row() != kNoRow) break;
            chunk = queue.spare(rows);
        }
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) failure.record(rows, [&] { failRead(db, rc, "read events"); });
        if (chunk && chunk->size() > 0) {
            chunk->seal();
            queue.push(std::move(chunk));
        }
        queue.close();
        while (auto rest = queue.next()) decoder.decode(*rest, parser);
        helper.reset();
    }
    failure.rethrow();
    return rows;
}

// A process killed inside a write leaves a hot rollback journal beside the
// file. A read-only connection cannot roll it back (SQLite answers
// SQLITE_READONLY_ROLLBACK), so a connection that may write opens the file
// first and lets SQLite restore the state before that write. A busy or
// locked file fails the read as it would anyway.
void rollBackHotJournal(const QString& path) {
    if (!QFileInfo::exists(path + QStringLiteral("-journal"))) return;
    Connection db(path, SQLITE_OPEN_READWRITE);
    const int rc = sqlite3_exec(db.get(), "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK && isTransient(rc)) failRead(db, rc, "roll back the journal");
    // Anything else is for the read below to judge.
}

AppSnapshot readDatabase(const QString& path) {
    rollBackHotJournal(path);
    Connection db(path, SQLITE_OPEN_READONLY);
    JsonDocumentParser parser;
    // Metadata and rows from one state of the file, even while another
    // connection commits.
    db.execute("BEGIN");

    SQLiteMetadata metadata;
    {
        Statement query(db, kReadMetadata, Kind::corrupt);
        const int rc = sqlite3_step(query.get());
        if (rc == SQLITE_DONE) corrupt("no metadata row");
        if (rc != SQLITE_ROW) failRead(db, rc, "read metadata");
        const auto payload = columnBytes(query.get());
        if (payload.empty()) corrupt("empty metadata payload");
        try {
            metadata = parser.decode<SQLiteMetadata>(payload);
        } catch (const JsonDecodingError& error) {
            corrupt(std::string("metadata: ") + error.what());
        }
    }

    const std::size_t rows = readEvents(db, metadata.eventOrder, metadata.snapshot.events, parser);
    if (rows != metadata.eventOrder.size()) corrupt("event rows do not match the event order");
    db.execute("COMMIT");
    return std::move(metadata.snapshot);
}

// --- write ----------------------------------------------------------------------

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

[[noreturn]] void duplicateEvent(const UUID& id) {
    // Two events with one id would share a row and the file would no longer
    // read back; refuse the save rather than store that.
    throw SQLitePersistenceError(Kind::operation, "two events share the id " + id.toStdString());
}

// Upserts every event of `current` that is new or differs from its value in
// `old`, and deletes the rows of events that are gone.
void writeEventChanges(const std::vector<CalendarEvent>& old, const std::vector<CalendarEvent>& current,
                       EventRows& rows) {
    // Most saves keep the order of the events, so pair them by position
    // first and look up by id only what is left over.
    std::vector<bool> oldPaired(old.size(), false);
    std::vector<std::size_t> leftOver;
    const auto common = std::min(old.size(), current.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (old[i].id != current[i].id) {
            leftOver.push_back(i);
            continue;
        }
        oldPaired[i] = true;
        if (!(old[i] == current[i])) rows.upsert(current[i]);
    }
    for (std::size_t i = common; i < current.size(); ++i) leftOver.push_back(i);

    if (!leftOver.empty()) {
        std::unordered_map<UUID, std::size_t> oldIndex;
        oldIndex.reserve(old.size());
        for (std::size_t k = 0; k < old.size(); ++k) oldIndex.try_emplace(old[k].id, k);
        std::unordered_set<UUID> seen;
        seen.reserve(leftOver.size());
        for (const auto i : leftOver) {
            const auto& event = current[i];
            if (!seen.insert(event.id).second) duplicateEvent(event.id);
            const auto found = oldIndex.find(event.id);
            if (found != oldIndex.end()) {
                // Already paired by position: the id is in `current` twice.
                if (oldPaired[found->second]) duplicateEvent(event.id);
                oldPaired[found->second] = true;
                if (old[found->second] == event) continue;
            }
            rows.upsert(event);
        }
    }

    std::vector<std::size_t> gone;
    for (std::size_t k = 0; k < old.size(); ++k)
        if (!oldPaired[k]) gone.push_back(k);
    if (gone.empty()) return;
    // Checked against every current id, so that a row is never deleted
    // while an event still uses it, nor deleted twice.
    std::unordered_set<UUID> kept;
    kept.reserve(current.size() + gone.size());
    for (const auto& event : current) kept.insert(event.id);
    for (const auto k : gone)
        if (kept.insert(old[k].id).second) rows.remove(old[k].id);
}

// An id as two integers: looking one up among a few others then costs a
// couple of compares rather than calls to memcmp, which counts when every
// event of a large list is looked up.
using IDKey = std::pair<std::uint64_t, std::uint64_t>;
IDKey idKey(const UUID& id) {
    IDKey key;
    std::memcpy(&key.first, id.bytes().data(), sizeof key.first);
    std::memcpy(&key.second, id.bytes().data() + sizeof key.first, sizeof key.second);
    return key;
}

// Writes the rows of an edit that put current[begin, end) where the
// `replaced` events stood: the same rows as comparing the whole lists, as
// long as no two events of the old list share an id (with nothing replaced,
// even then), and the same refusal of an id used twice.
void writeEditedRows(const std::vector<CalendarEvent>& current, std::size_t begin, std::size_t end,
                     const std::vector<std::pair<std::size_t, CalendarEvent>>& replaced, EventRows& rows) {
    std::vector<IDKey> added;
    added.reserve(end - begin);
    for (std::size_t i = begin; i < end; ++i) added.push_back(idKey(current[i].id));
    std::sort(added.begin(), added.end());
    const auto isAdded = [&](const UUID& id) { return std::binary_search(added.begin(), added.end(), idKey(id)); };

    if (!added.empty()) {
        // A new event may not take the id of an event that stays.
        std::vector<IDKey> taken;
        const auto collect = [&](std::size_t from, std::size_t to) {
            for (std::size_t i = from; i < to; ++i)
                if (isAdded(current[i].id)) taken.push_back(idKey(current[i].id));
        };
        collect(0, begin);
        collect(end, current.size());
        std::sort(taken.begin(), taken.end());
        std::unordered_set<UUID> seen;
        seen.reserve(end - begin);
        for (std::size_t i = begin; i < end; ++i) {
            const UUID& id = current[i].id;
            if (!seen.insert(id).second || std::binary_search(taken.begin(), taken.end(), idKey(id)))
                duplicateEvent(id);
        }
    }

    // The replaced events by id, to find the old value of a kept one.
    std::vector<std::pair<IDKey, std::size_t>> old;
    old.reserve(replaced.size());
    for (std::size_t k = 0; k < replaced.size(); ++k) old.emplace_back(idKey(replaced[k].second.id), k);
    std::sort(old.begin(), old.end());
    for (std::size_t i = begin; i < end; ++i) {
        const auto& event = current[i];
        const IDKey key = idKey(event.id);
        const auto found = std::lower_bound(old.begin(), old.end(), std::pair(key, std::size_t{0}));
        if (found != old.end() && found->first == key && replaced[found->second].second == event) continue;
        rows.upsert(event);
    }
    for (const auto& [place, event] : replaced)
        if (!isAdded(event.id)) rows.remove(event.id);
}

// Writes `snapshot` in one transaction: the metadata row, then the event rows
// through `writeEventRows`.
template <class WriteEventRows>
void writeDatabase(const AppSnapshot& snapshot, Connection& db, LocalCalendarService::WriteStats& stats,
                   WriteEventRows&& writeEventRows) {
    db.execute("BEGIN IMMEDIATE");
    try {
        {
            std::string payload;
            payload.reserve(4096 + 39 * snapshot.events.size());
            JsonWriter w(payload);
            SQLiteMetadata::encode(w, snapshot);
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

} // namespace

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

// --- integrity ----------------------------------------------------------------------

namespace {

// What SQLite's own structural check says of the file: true when it finds
// nothing. Throws when the check cannot run (locked, out of memory).
bool passesQuickCheck(const QString& path) {
    Connection db(path, SQLITE_OPEN_READONLY);
    Statement check(db, "PRAGMA quick_check", Kind::operation);
    int rc = sqlite3_step(check.get());
    if (rc == SQLITE_ROW) {
        const auto first = columnBytes(check.get());
        if (first != "ok") return false;
        rc = sqlite3_step(check.get());
    }
    if (rc == SQLITE_DONE) return true;
    if (isTransient(rc)) failRead(db, rc, "quick_check");
    return false;
}

} // namespace

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
