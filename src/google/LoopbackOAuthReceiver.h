#pragma once

// The one-shot HTTP server on 127.0.0.1 that the browser is redirected to at
// the end of Google's consent page.

#include "support/Error.h"

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QString>
#include <QUrl>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>

namespace tavelo {

class LoopbackOAuthReceiverError final : public Error {
public:
    enum class Kind { alreadyStarted, notStarted, callbackAlreadyConsumed, invalidRequest, listenerUnavailable, timedOut };
    explicit LoopbackOAuthReceiverError(Kind kind) : kind_(kind) {}
    Kind kind() const { return kind_; }
    std::optional<QString> errorDescription() const override;
    const char* domain() const override { return "LoopbackOAuthReceiverError"; }
    int code() const override { return static_cast<int>(kind_); }

private:
    Kind kind_;
};

// The network side of the receiver: a listener on the loopback interface
// that takes one connection and reads one request head from it.
class LoopbackListenerSession {
public:
    virtual ~LoopbackListenerSession() = default;
    // Binds and returns the port.
    virtual QCoro::Task<std::uint16_t> start(std::stop_token stop = {}) = 0;
    // The bytes of the first complete request head (up to and with the blank
    // line). A stop request cancels the session.
    virtual QCoro::Task<QByteArray> receive(std::stop_token stop = {}) = 0;
    // Sends the whole answer and resumes once it has been handed to the
    // system.
    virtual QCoro::Task<void> sendResponse(QByteArray bytes, std::stop_token stop = {}) = 0;
    // Closes the listener and the connection; idempotent.
    virtual void cancel() = 0;
};

// Bytes larger than this never form a callback request.
inline constexpr qsizetype kLoopbackRequestLimit = 16384;

// The production session: a QTcpServer on 127.0.0.1 with a port the system
// picks. The first connection is kept, every later one is closed at once.
std::shared_ptr<LoopbackListenerSession> makeTcpLoopbackListenerSession();

// The time limit of the wait, injectable so that tests never wait.
class OAuthTimeoutClock {
public:
    virtual ~OAuthTimeoutClock() = default;
    // Throws CancellationError when stopped first.
    virtual QCoro::Task<void> sleep(double seconds, std::stop_token stop) = 0;
};

// Counts on CLOCK_BOOTTIME, which keeps running while the machine sleeps.
class ContinuousOAuthTimeoutClock final : public OAuthTimeoutClock {
public:
    QCoro::Task<void> sleep(double seconds, std::stop_token stop) override;
};

// What the sign-in sees of the receiver: start once, wait once.
class OAuthCallbackReceiving {
public:
    virtual ~OAuthCallbackReceiving() = default;
    // The redirect URL, "http://127.0.0.1:{port}/oauth/callback".
    virtual QCoro::Task<QUrl> start(std::stop_token stop = {}) = 0;
    // The authorization code of the one request that arrives.
    virtual QCoro::Task<QString> waitForCallback(QString expectedState, std::stop_token stop = {}) = 0;
    virtual void cancel() = 0;
};

// The URL of a request head: "GET {target} HTTP/1.x" becomes
// http://127.0.0.1{target}. Headers are never read. Throws invalidRequest.
QUrl loopbackCallbackURL(const QByteArray& request);
// The complete answer to the browser, head and page.
QByteArray loopbackResponse(bool success);

// Owns the listener of one authorization: start, one wait with a time limit,
// the answer to the browser and the teardown. The code leaves only after the
// browser has been answered and the listener is closed. Main thread only;
// every step after a suspension first checks that the session it started is
// still the current one.
class LoopbackOAuthReceiver final : public OAuthCallbackReceiving,
                                    public std::enable_shared_from_this<LoopbackOAuthReceiver> {
public:
    using ListenerFactory = std::function<std::shared_ptr<LoopbackListenerSession>()>;
    enum class Phase { starting, listening, waiting, finishing, idle, terminated };

    static constexpr double kDefaultCallbackTimeout = 300.0;

    static std::shared_ptr<LoopbackOAuthReceiver> make(ListenerFactory listenerFactory = makeTcpLoopbackListenerSession,
                                                       std::shared_ptr<OAuthTimeoutClock> timeoutClock = nullptr,
                                                       double callbackTimeout = kDefaultCallbackTimeout);

    QCoro::Task<QUrl> start(std::stop_token stop = {}) override;
    QCoro::Task<QString> waitForCallback(QString expectedState, std::stop_token stop = {}) override;
    void cancel() override;

    Phase phase() const { return phase_; }

private:
    struct Session {
        std::uint64_t generation = 0;
        std::shared_ptr<LoopbackListenerSession> listener;
    };

    LoopbackOAuthReceiver(ListenerFactory listenerFactory, std::shared_ptr<OAuthTimeoutClock> timeoutClock,
                          double callbackTimeout);

    bool owns(const Session& session, Phase phase) const {
        return phase_ == phase && session_ && session_->generation == session.generation;
    }
    bool beginFinishing(const Session& session);
    void terminateIfOwned(const Session& session);
    QCoro::Task<QString> finishWithFailure(Session session, std::exception_ptr error, bool requestReceived);

    ListenerFactory listenerFactory_;
    std::shared_ptr<OAuthTimeoutClock> timeoutClock_;
    double callbackTimeout_;
    Phase phase_ = Phase::idle;
    std::optional<Session> session_;
    std::uint64_t nextGeneration_ = 0;
};

} // namespace tavelo
