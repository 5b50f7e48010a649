#include "services/StoreFiles.h"

#include "services/LocalCalendarService.h"
#include "support/UUID.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace tavelo {

namespace {

QByteArray nativePath(const QString& path) { return QFile::encodeName(path); }

} // namespace

bool isSQLiteDatabase(const QString& path) {
    static constexpr char kMagic[16] = {'S', 'Q', 'L', 'i', 't', 'e', ' ', 'f',
                                        'o', 'r', 'm', 'a', 't', ' ', '3', '\0'};
    const int fd = ::open(nativePath(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw FileSystemError(FileSystemError::Operation::open, path, errno);
    char header[16];
    std::size_t filled = 0;
    int readError = 0;
    while (filled < sizeof header) {
        const auto n = ::read(fd, header + filled, sizeof header - filled);
        if (n > 0) {
            filled += static_cast<std::size_t>(n);
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            readError = errno;
            break;
        }
    }
    ::close(fd);
    if (readError) throw FileSystemError(FileSystemError::Operation::read, path, readError);
    return filled == sizeof header && std::memcmp(header, kMagic, sizeof header) == 0;
}

QByteArray readWholeFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) throw FileSystemError(FileSystemError::Operation::open, path, errno);
    QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) throw FileSystemError(FileSystemError::Operation::read, path, errno);
    return bytes;
}

void moveItem(const QString& from, const QString& to) {
    const auto source = nativePath(from);
    const auto target = nativePath(to);
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE) == 0) return;
    int error = errno;
    if (error == EINVAL || error == ENOSYS) {
        // The file system cannot refuse to replace; check by hand.
        if (::access(target.constData(), F_OK) == 0) throw FileSystemError(FileSystemError::Operation::move, to, EEXIST);
        if (::rename(source.constData(), target.constData()) == 0) return;
        error = errno;
    }
    throw FileSystemError(FileSystemError::Operation::move, to, error);
}

void replaceItem(const QString& target, const QString& replacement) {
    if (::rename(nativePath(replacement).constData(), nativePath(target).constData()) != 0)
        throw FileSystemError(FileSystemError::Operation::replace, target, errno);
}

void copyItem(const QString& from, const QString& to) {
    if (!QFile::copy(from, to)) throw FileSystemError(FileSystemError::Operation::copy, to);
}

QString temporaryDatabasePath(const QString& statePath) {
    const QFileInfo info(statePath);
    return info.dir().filePath(QStringLiteral(".%1.%2.tmp").arg(info.fileName(), UUID::random().toString()));
}

int removeLeftoverTemporaries(const QString& statePath) {
    const QFileInfo info(statePath);
    QDir dir = info.dir();
    const QString prefix = QStringLiteral(".%1.").arg(info.fileName());
    int removed = 0;
    const auto names = dir.entryList({prefix + QStringLiteral("*.tmp"), prefix + QStringLiteral("*.tmp-journal")},
                                     QDir::Files | QDir::Hidden | QDir::System);
    for (const QString& name : names) {
        // Only names of the form the replacement makes: prefix, UUID, ".tmp".
        QString middle = name.mid(prefix.size());
        if (middle.endsWith(QStringLiteral("-journal"))) middle.chop(8);
        if (!middle.endsWith(QStringLiteral(".tmp"))) continue;
        middle.chop(4);
        if (!UUID::fromString(middle)) continue;
        if (dir.remove(name)) ++removed;
    }
    return removed;
}

StoreFileLock::StoreFileLock(QString statePath) {
    lockPath_ = QFileInfo(statePath).absolutePath();
}

StoreFileLock::~StoreFileLock() {
    if (fd_ >= 0) ::close(fd_); // closing the descriptor releases the lock
}

bool StoreFileLock::tryAcquire() {
    if (fd_ >= 0) return true;
    const int fd = ::open(nativePath(lockPath_).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false; // no directory yet: nothing to guard
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        ::close(fd);
        if (error == EWOULDBLOCK) return false;
        throw FileSystemError(FileSystemError::Operation::lock, lockPath_, error);
    }
    fd_ = fd;
    return true;
}

void StoreFileLock::require() {
    if (!tryAcquire()) throw FileSystemError(FileSystemError::Operation::lock, lockPath_, EWOULDBLOCK);
}

} // namespace tavelo
