#include "support/SqliteFile.h"

#include <QFile>

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace tavelo::testing {

SqliteFile::SqliteFile(const QString& path) {
    EXPECT_EQ(sqlite3_open_v2(QFile::encodeName(path).constData(), &db_, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK)
        << path.toStdString();
}

int SqliteFile::exec(const std::string& sql) { return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr); }

QByteArray SqliteFile::rows(const std::string& sql) {
    QByteArray out;
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        for (int column = 0; column < sqlite3_column_count(stmt); ++column) {
            if (column > 0) out += ' ';
            out += QByteArray(static_cast<const char*>(sqlite3_column_blob(stmt, column)), sqlite3_column_bytes(stmt, column));
        }
        out += '\n';
    }
    sqlite3_finalize(stmt);
    return out;
}

std::string SqliteFile::value(const std::string& sql) {
    const QByteArray all = rows(sql);
    return all.left(all.indexOf('\n')).toStdString();
}

void SqliteFile::close() {
    if (!db_) return;
    if (!sqlite3_get_autocommit(db_)) exec("ROLLBACK");
    sqlite3_close_v2(db_);
    db_ = nullptr;
}

std::string quickCheck(const QString& path) { return SqliteFile(path).value("PRAGMA quick_check"); }

ExclusiveLock::ExclusiveLock(const QString& path) : file_(path) { EXPECT_EQ(file_.exec("BEGIN EXCLUSIVE"), SQLITE_OK); }

} // namespace tavelo::testing
