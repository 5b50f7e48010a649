#include "app/SingleInstance.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLoggingCategory>
#include <QStandardPaths>
#include <QThread>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace tavelo {

Q_LOGGING_CATEGORY(lcInstance, "tavelo.instance")

namespace {
// A message is one line; anything longer is cut here.
constexpr qint64 kMaxMessage = 4096;
} // namespace

SingleInstance::SingleInstance(QString directory, QString name, QObject* parent)
    : QObject(parent), directory_(std::move(directory)), name_(std::move(name)) {
    if (directory_.isEmpty()) directory_ = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (directory_.isEmpty()) directory_ = QDir::tempPath();
}

SingleInstance::~SingleInstance() {
    if (server_) server_->close(); // removes the socket file
    if (lockFd_ >= 0) ::close(lockFd_);
}

QString SingleInstance::socketPath() const { return QDir(directory_).filePath(name_ + QStringLiteral(".socket")); }

bool SingleInstance::tryBecomePrimary(const QByteArray& message, int timeoutMs) {
    if (isPrimary()) return true;
    handedOver_ = false;
    QDir().mkpath(directory_);
    const QByteArray lockPath = QFile::encodeName(QDir(directory_).filePath(name_ + QStringLiteral(".lock")));
    const int fd = ::open(lockPath.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        // Without a lock there is no telling who is first: run alone rather
        // than not at all.
        qCWarning(lcInstance) << "cannot open the instance lock" << lockPath << ::strerror(errno);
        return true;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
        lockFd_ = fd;
        if (!listen()) qCWarning(lcInstance) << "later starts cannot reach this one:" << server_->errorString();
        return true;
    }
    ::close(fd);
    handedOver_ = handOver(message, timeoutMs);
    return false;
}

bool SingleInstance::listen() {
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    // A crashed primary leaves its socket file; the lock says it is stale.
    QLocalServer::removeServer(socketPath());
    connect(server_, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = server_->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            auto buffer = std::make_shared<QByteArray>();
            const auto take = [this, socket, buffer] {
                buffer->append(socket->read(kMaxMessage - buffer->size()));
                const auto end = buffer->indexOf('\n');
                if (end < 0 && buffer->size() < kMaxMessage) return;
                const QByteArray message = buffer->left(end < 0 ? buffer->size() : end);
                socket->disconnect(this);
                socket->disconnectFromServer();
                emit activationRequested(message);
            };
            connect(socket, &QLocalSocket::readyRead, this, take);
            if (socket->bytesAvailable() > 0) take();
        }
    });
    return server_->listen(socketPath());
}

bool SingleInstance::handOver(const QByteArray& message, int timeoutMs) {
    const QDeadlineTimer deadline(timeoutMs);
    // The primary may hold the lock a moment before it listens.
    while (true) {
        QLocalSocket socket;
        socket.connectToServer(socketPath());
        if (socket.waitForConnected(static_cast<int>(std::max<qint64>(1, deadline.remainingTime())))) {
            QByteArray line = message.left(kMaxMessage - 1);
            line.replace('\n', ' ');
            socket.write(line + '\n');
            const bool written = socket.waitForBytesWritten(static_cast<int>(std::max<qint64>(1, deadline.remainingTime())));
            socket.disconnectFromServer();
            return written;
        }
        if (deadline.hasExpired()) return false;
        QThread::msleep(50);
    }
}

} // namespace tavelo
