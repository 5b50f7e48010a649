#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

class QLocalServer;

namespace tavelo {

// One Tavelo process per user. The first start takes an exclusive lock in the
// user's runtime directory and listens on a local socket beside it; a later
// start finds the lock taken, hands its message to the running process over
// the socket and should then exit. The running process answers with
// `activationRequested`, on which it brings its window forward.
//
// The lock is a flock, so the kernel drops it with a crashed process; the
// socket file such a process leaves is replaced by the next primary.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    // `directory` holds "{name}.lock" and "{name}.socket"; empty means the
    // user's runtime directory ($XDG_RUNTIME_DIR).
    explicit SingleInstance(QString directory = {}, QString name = QStringLiteral("tavelo"),
                            QObject* parent = nullptr);
    ~SingleInstance() override;

    // True when this process is now the primary (or already was). False when
    // another process is: `message` has then been handed to it, if it could
    // be reached within `timeoutMs`; see `handedOver`.
    bool tryBecomePrimary(const QByteArray& message = QByteArrayLiteral("activate"), int timeoutMs = 3000);
    bool isPrimary() const { return lockFd_ >= 0; }
    // After a false `tryBecomePrimary`: whether the running process got the
    // message.
    bool handedOver() const { return handedOver_; }

    QString socketPath() const;

signals:
    // A later start asked this one to come forward; `message` is what it sent.
    void activationRequested(const QByteArray& message);

private:
    bool listen();
    bool handOver(const QByteArray& message, int timeoutMs);

    QString directory_;
    QString name_;
    int lockFd_ = -1;
    bool handedOver_ = false;
    QLocalServer* server_ = nullptr;
};

} // namespace tavelo
