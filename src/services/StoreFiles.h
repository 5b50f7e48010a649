#pragma once

// The file-system steps of the calendar store: the header check, moves,
// copies and atomic replacement, the cleanup of what an interrupted
// replacement left behind, and the lock that makes one process the only
// writer of a state file. Every failure is a FileSystemError.

#include <QByteArray>
#include <QString>

namespace tavelo {

// True when the file starts with the 16 bytes "SQLite format 3\0". A shorter
// file is not a database; a file that cannot be opened is an error.
bool isSQLiteDatabase(const QString& path);
QByteArray readWholeFile(const QString& path);
// Moves a file to a name that must not exist yet.
void moveItem(const QString& from, const QString& to);
// Atomically puts `replacement` in the place of `target`.
void replaceItem(const QString& target, const QString& replacement);
void copyItem(const QString& from, const QString& to);

// The name of a replacement's temporary database beside `statePath`.
QString temporaryDatabasePath(const QString& statePath);
// Removes the temporary databases (and their journals) that replacements of
// `statePath` left when they were interrupted. Answers how many files went.
int removeLeftoverTemporaries(const QString& statePath);

// An exclusive advisory lock (flock) on the directory of the state file, held
// from `tryAcquire` until destruction. It leaves no file behind, and the
// kernel drops it when the process dies, so a crash never leaves it stale.
// Two objects conflict even within one process.
class StoreFileLock {
public:
    explicit StoreFileLock(QString statePath);
    ~StoreFileLock();
    StoreFileLock(const StoreFileLock&) = delete;
    StoreFileLock& operator=(const StoreFileLock&) = delete;

    // True when this object holds the lock now (at once, without waiting).
    // False when someone else holds it or the directory cannot be opened
    // (it may not exist yet).
    bool tryAcquire();
    bool isHeld() const { return fd_ >= 0; }
    // Throws FileSystemError(lock) unless the lock is held or can be taken.
    void require();

private:
    QString lockPath_;
    int fd_ = -1;
};

} // namespace tavelo
