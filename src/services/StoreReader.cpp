// Reading the SQLite calendar store, and SQLite's own check of the file.

#include "services/StoreDatabase.h"

#include <QFileInfo>

#include <atomic>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <system_error>
#include <unordered_map>

namespace tavelo::storedb {

namespace {

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

// The index of each id in the event order.
class EventPositions {
public:
    static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

    explicit EventPositions(const std::vector<UUID>& order) {
        index_.reserve(order.size());
        for (std::size_t i = 0; i < order.size(); ++i)
            if (!index_.try_emplace(order[i], i).second) corrupt("event listed twice " + order[i].toStdString());
    }

    std::size_t find(const UUID& id) const {
        const auto found = index_.find(id);
        return found == index_.end() ? kNone : found->second;
    }

private:
    std::unordered_map<UUID, std::size_t> index_;
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
        std::size_t held;
        {
            const std::lock_guard lock(claimsMutex_);
            held = claims_[position]; // the earliest row so far, plus one; 0 for none
            if (held != 0 && held - 1 < row) corrupt("duplicate event " + id.toStdString());
            claims_[position] = row + 1;
        }
        if (held == 0) return true;
        // A later row came first and its event is in place already; that
        // row fails, and this one leaves the event alone.
        failure_.record(held - 1, [&] { corrupt("duplicate event " + id.toStdString()); });
        return false;
    }

    const EventPositions& positions_;
    std::vector<CalendarEvent>& events_;
    std::mutex claimsMutex_;
    std::vector<std::size_t> claims_;
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

} // namespace

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


} // namespace tavelo::storedb
