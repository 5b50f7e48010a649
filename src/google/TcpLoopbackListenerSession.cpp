#include "google/LoopbackOAuthReceiver.h"

#include "support/Async.h"

#include <QHostAddress>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

namespace tavelo {

namespace {

using Kind = LoopbackOAuthReceiverError::Kind;

constexpr qint64 kReadSize = 4096;
// How long a closing connection may take to deliver the page.
constexpr int kLingerMilliseconds = 5000;

struct ReceiveOutcome {
    QByteArray bytes;
    std::exception_ptr error;
};

class TcpLoopbackListenerSession final : public LoopbackListenerSession,
                                         public std::enable_shared_from_this<TcpLoopbackListenerSession> {
public:
    ~TcpLoopbackListenerSession() override { cancel(); }

    QCoro::Task<std::uint16_t> start(std::stop_token stop) override {
        if (didStart_) throw LoopbackOAuthReceiverError(Kind::alreadyStarted);
        didStart_ = true;
        checkCancellation(stop);
        if (isCancelled_) throw CancellationError();
        server_ = std::make_unique<QTcpServer>();
        server_->setMaxPendingConnections(1);
        std::weak_ptr<TcpLoopbackListenerSession> weak = weak_from_this();
        QObject::connect(server_.get(), &QTcpServer::newConnection, server_.get(), [weak] {
            if (auto self = weak.lock()) self->acceptConnections();
        });
        if (!server_->listen(QHostAddress::LocalHost, 0)) {
            finish(std::make_exception_ptr(LoopbackOAuthReceiverError(Kind::listenerUnavailable)));
            throw LoopbackOAuthReceiverError(Kind::listenerUnavailable);
        }
        co_return server_->serverPort();
    }

    QCoro::Task<QByteArray> receive(std::stop_token stop) override {
        auto self = shared_from_this();
        checkCancellation(stop);
        if (pendingRequest_) co_return *std::exchange(pendingRequest_, std::nullopt);
        if (terminalError_) std::rethrow_exception(terminalError_);
        if (receiveContinuation_) throw LoopbackOAuthReceiverError(Kind::listenerUnavailable);
        Continuation<ReceiveOutcome> continuation;
        receiveContinuation_ = continuation;
        std::weak_ptr<TcpLoopbackListenerSession> weak = self;
        std::stop_callback onStop(stop, [weak] {
            postToMainThread([weak] {
                if (auto self = weak.lock()) self->cancel();
            });
        });
        ReceiveOutcome outcome = co_await continuation;
        if (outcome.error) std::rethrow_exception(outcome.error);
        co_return outcome.bytes;
    }

    QCoro::Task<void> sendResponse(QByteArray bytes, std::stop_token stop) override {
        auto self = shared_from_this();
        if (!connection_ || isCancelled_) throw LoopbackOAuthReceiverError(Kind::listenerUnavailable);
        QPointer<QTcpSocket> socket = connection_;
        Continuation<std::exception_ptr> sent;
        auto failed = [sent]() mutable {
            sent.resume(std::make_exception_ptr(LoopbackOAuthReceiverError(Kind::listenerUnavailable)));
        };
        QObject::connect(socket, &QTcpSocket::bytesWritten, socket, [socket, sent]() mutable {
            if (socket->bytesToWrite() == 0) sent.resume(nullptr);
        });
        QObject::connect(socket, &QTcpSocket::disconnected, socket, failed);
        QObject::connect(socket, &QObject::destroyed, failed);
        QObject::connect(socket, &QTcpSocket::errorOccurred, socket, failed);
        if (socket->write(bytes) != bytes.size()) failed();
        std::weak_ptr<TcpLoopbackListenerSession> weak = self;
        std::stop_callback onStop(stop, [weak] {
            postToMainThread([weak] {
                if (auto self = weak.lock()) self->cancel();
            });
        });
        const std::exception_ptr error = co_await sent;
        if (socket) QObject::disconnect(socket, nullptr, nullptr, nullptr);
        if (error) std::rethrow_exception(error);
    }

    void cancel() override {
        if (isCancelled_) return;
        isCancelled_ = true;
        if (server_) server_->close();
        if (QPointer<QTcpSocket> socket = std::exchange(connection_, nullptr)) close(socket);
        const auto cancelled = std::make_exception_ptr(CancellationError());
        terminalError_ = cancelled;
        if (auto waiting = std::exchange(receiveContinuation_, std::nullopt)) waiting->resume(ReceiveOutcome{{}, cancelled});
    }

private:
    void acceptConnections() {
        while (QTcpSocket* socket = server_->nextPendingConnection()) {
            // The socket outlives the server, so that a page already written
            // still reaches the browser after the listener has closed.
            socket->setParent(nullptr);
            if (connection_ || isCancelled_) {
                socket->abort();
                socket->deleteLater();
                continue;
            }
            connection_ = socket;
            std::weak_ptr<TcpLoopbackListenerSession> weak = weak_from_this();
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [weak] {
                if (auto self = weak.lock()) self->readRequest();
            });
            QObject::connect(socket, &QTcpSocket::readChannelFinished, socket, [weak] {
                if (auto self = weak.lock()) self->peerClosed();
            });
            QObject::connect(socket, &QTcpSocket::errorOccurred, socket, [weak](QAbstractSocket::SocketError error) {
                if (auto self = weak.lock()) {
                    if (error == QAbstractSocket::RemoteHostClosedError)
                        self->peerClosed();
                    else
                        self->finish(std::make_exception_ptr(LoopbackOAuthReceiverError(Kind::listenerUnavailable)));
                }
            });
            readRequest();
        }
    }

    void readRequest() {
        if (!connection_) return;
        if (requestComplete_) {
            connection_->readAll(); // what follows the first head is never read
            return;
        }
        while (connection_->bytesAvailable() > 0) {
            requestBuffer_ += connection_->read(kReadSize);
            if (requestBuffer_.size() > kLoopbackRequestLimit) {
                requestComplete_ = true;
                requestBuffer_.clear();
                finish(std::make_exception_ptr(LoopbackOAuthReceiverError(Kind::invalidRequest)));
                return;
            }
            if (requestBuffer_.contains("\r\n\r\n")) {
                requestComplete_ = true;
                QByteArray request = std::exchange(requestBuffer_, QByteArray());
                if (auto waiting = std::exchange(receiveContinuation_, std::nullopt))
                    waiting->resume(ReceiveOutcome{std::move(request), nullptr});
                else
                    pendingRequest_ = std::move(request);
                connection_->readAll();
                return;
            }
        }
    }

    void peerClosed() {
        readRequest();
        if (!requestComplete_) {
            requestComplete_ = true;
            finish(std::make_exception_ptr(LoopbackOAuthReceiverError(Kind::invalidRequest)));
        }
    }

    // Fixes the session's end; the receiver's teardown closes the sockets.
    void finish(std::exception_ptr error) {
        if (terminalError_) return;
        terminalError_ = error;
        if (auto waiting = std::exchange(receiveContinuation_, std::nullopt)) waiting->resume(ReceiveOutcome{{}, error});
    }

    static void close(QTcpSocket* socket) {
        QObject::disconnect(socket, nullptr, nullptr, nullptr);
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket] { socket->readAll(); });
        QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        QTimer::singleShot(kLingerMilliseconds, socket, [socket] {
            socket->abort();
            socket->deleteLater();
        });
        socket->readAll();
        socket->disconnectFromHost();
        if (socket->state() == QAbstractSocket::UnconnectedState) socket->deleteLater();
    }

    std::unique_ptr<QTcpServer> server_;
    QPointer<QTcpSocket> connection_;
    std::optional<Continuation<ReceiveOutcome>> receiveContinuation_;
    std::optional<QByteArray> pendingRequest_;
    QByteArray requestBuffer_;
    std::exception_ptr terminalError_;
    bool didStart_ = false;
    bool isCancelled_ = false;
    bool requestComplete_ = false;
};

} // namespace

std::shared_ptr<LoopbackListenerSession> makeTcpLoopbackListenerSession() {
    return std::make_shared<TcpLoopbackListenerSession>();
}

} // namespace tavelo
