#pragma once

// A connection of its own to a SQLite file, for tests that read or tamper
// with what the calendar store wrote, or hold its lock.

#include <QByteArray>
#include <QString>

#include <string>

struct sqlite3;

namespace tavelo::testing {

class SqliteFile {
public:
    explicit SqliteFile(const QString& path);
    ~SqliteFile() { close(); }
    SqliteFile(const SqliteFile&) = delete;
    SqliteFile& operator=(const SqliteFile&) = delete;

    int exec(const std::string& sql);
    // Every row of `sql`: columns joined by a space, a line per row.
    QByteArray rows(const std::string& sql);
    // The first column of the first row ("" without one).
    std::string value(const std::string& sql);
    // Ends any open transaction and closes the connection.
    void close();

private:
    sqlite3* db_ = nullptr;
};

// "ok" for a sound file; SQLite's first complaint otherwise.
std::string quickCheck(const QString& path);

// Holds SQLite's exclusive lock on a file: every other writer and reader
// meets SQLITE_BUSY until `release` or destruction.
class ExclusiveLock {
public:
    explicit ExclusiveLock(const QString& path);
    void release() { file_.close(); }

private:
    SqliteFile file_;
};

} // namespace tavelo::testing
