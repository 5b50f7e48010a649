#include "google/LoopbackOAuthReceiver.h"

#include "google/GoogleOAuth.h"
#include "support/Async.h"

#include <QStringDecoder>

#include <algorithm>
#include <ctime>

namespace tavelo {

namespace {

using Kind = LoopbackOAuthReceiverError::Kind;

double bootSeconds() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// How a wait for the browser ended: a request head, the time limit, or a
// failure of the listener.
struct WaitOutcome {
    std::optional<QByteArray> request;
    bool timedOut = false;
    std::exception_ptr error;
};

// Races the listener against the clock; the loser is cancelled and awaited.
QCoro::Task<WaitOutcome> firstOfRequestOrTimeout(std::shared_ptr<LoopbackListenerSession> listener,
                                                 std::shared_ptr<OAuthTimeoutClock> clock, double timeout) {
    Continuation<WaitOutcome> first;
    auto receiving = BackgroundTask<bool>::start([listener, first](std::stop_token token) mutable -> QCoro::Task<bool> {
        try {
            QByteArray bytes = co_await listener->receive(token);
            first.resume(WaitOutcome{std::move(bytes), false, nullptr});
        } catch (...) {
            first.resume(WaitOutcome{std::nullopt, false, std::current_exception()});
        }
        co_return true;
    });
    auto sleeping = BackgroundTask<bool>::start([clock, timeout, first](std::stop_token token) mutable -> QCoro::Task<bool> {
        try {
            co_await clock->sleep(timeout, token);
            first.resume(WaitOutcome{std::nullopt, true, nullptr});
        } catch (...) {
            first.resume(WaitOutcome{std::nullopt, false, std::current_exception()});
        }
        co_return true;
    });
    WaitOutcome outcome = co_await first;
    if (!receiving.isFinished()) receiving.cancel();
    if (!sleeping.isFinished()) sleeping.cancel();
    co_await receiving.result();
    co_await sleeping.result();
    co_return outcome;
}

// Cancels the listener when the caller's task is cancelled.
std::stop_callback<std::function<void()>> cancelListenerOnStop(std::stop_token stop,
                                                               const std::shared_ptr<LoopbackListenerSession>& listener) {
    std::weak_ptr<LoopbackListenerSession> weak = listener;
    return std::stop_callback<std::function<void()>>(std::move(stop), std::function<void()>([weak] {
        postToMainThread([weak] {
            if (auto listener = weak.lock()) listener->cancel();
        });
    }));
}

} // namespace

std::optional<QString> LoopbackOAuthReceiverError::errorDescription() const {
    switch (kind_) {
    case Kind::alreadyStarted: return QStringLiteral("An OAuth callback listener is already running.");
    case Kind::notStarted: return QStringLiteral("The OAuth callback listener has not started.");
    case Kind::callbackAlreadyConsumed: return QStringLiteral("The OAuth callback was already consumed.");
    case Kind::invalidRequest: return QStringLiteral("The OAuth callback request is invalid.");
    case Kind::listenerUnavailable: return QStringLiteral("The OAuth callback listener is unavailable.");
    case Kind::timedOut: return QStringLiteral("The OAuth callback timed out.");
    }
    return std::nullopt;
}

QCoro::Task<void> ContinuousOAuthTimeoutClock::sleep(double seconds, std::stop_token stop) {
    const double deadline = bootSeconds() + seconds;
    const SleepFunction sleepFor = eventLoopSleep();
    // Short slices, so that time spent suspended counts as soon as the
    // machine wakes.
    for (double left = seconds; left > 0; left = deadline - bootSeconds())
        co_await sleepFor(std::min(left, 5.0), stop);
}

QUrl loopbackCallbackURL(const QByteArray& request) {
    const LoopbackOAuthReceiverError invalid(Kind::invalidRequest);
    if (request.size() > kLoopbackRequestLimit) throw invalid;
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(request);
    if (decoder.hasError()) throw invalid;
    const qsizetype lineEnd = text.indexOf(QStringLiteral("\r\n"));
    const QString line = lineEnd < 0 ? text : text.left(lineEnd);
    const QStringList pieces = line.split(QLatin1Char(' '), Qt::KeepEmptyParts);
    if (pieces.size() != 3) throw invalid;
    if (pieces[0] != QLatin1String("GET") || pieces[1].isEmpty() || !pieces[1].startsWith(QLatin1Char('/')) ||
        !pieces[2].startsWith(QLatin1String("HTTP/1.")))
        throw invalid;
    const QUrl url(QStringLiteral("http://127.0.0.1") + pieces[1], QUrl::StrictMode);
    if (!url.isValid()) throw invalid;
    return url;
}

QByteArray loopbackResponse(bool success) {
    const QByteArray status = success ? "200 OK" : "400 Bad Request";
    const QByteArray title = success ? "Authorization complete" : "Authorization failed";
    const QByteArray message =
        success ? "You can close this window and return to Tavelo." : "Return to Tavelo and try connecting again.";
    const QByteArray html = "<!doctype html><html><head><meta charset=\"utf-8\"><title>" + title +
                            "</title></head><body><h1>" + title + "</h1><p>" + message + "</p></body></html>";
    return "HTTP/1.1 " + status + "\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " +
           QByteArray::number(html.size()) + "\r\nConnection: close\r\n\r\n" + html;
}

std::shared_ptr<LoopbackOAuthReceiver> LoopbackOAuthReceiver::make(ListenerFactory listenerFactory,
                                                                   std::shared_ptr<OAuthTimeoutClock> timeoutClock,
                                                                   double callbackTimeout) {
    if (!timeoutClock) timeoutClock = std::make_shared<ContinuousOAuthTimeoutClock>();
    return std::shared_ptr<LoopbackOAuthReceiver>(
        new LoopbackOAuthReceiver(std::move(listenerFactory), std::move(timeoutClock), callbackTimeout));
}

LoopbackOAuthReceiver::LoopbackOAuthReceiver(ListenerFactory listenerFactory,
                                             std::shared_ptr<OAuthTimeoutClock> timeoutClock, double callbackTimeout)
    : listenerFactory_(std::move(listenerFactory)), timeoutClock_(std::move(timeoutClock)),
      callbackTimeout_(callbackTimeout) {}

QCoro::Task<QUrl> LoopbackOAuthReceiver::start(std::stop_token stop) {
    auto self = shared_from_this();
    switch (phase_) {
    case Phase::starting:
    case Phase::listening:
    case Phase::waiting: throw LoopbackOAuthReceiverError(Kind::alreadyStarted);
    case Phase::finishing:
    case Phase::terminated: throw LoopbackOAuthReceiverError(Kind::callbackAlreadyConsumed);
    case Phase::idle: break;
    }
    Session session{++nextGeneration_, nullptr};
    try {
        session.listener = listenerFactory_();
        if (!session.listener) throw LoopbackOAuthReceiverError(Kind::listenerUnavailable);
    } catch (...) {
        phase_ = Phase::terminated;
        throw;
    }
    phase_ = Phase::starting;
    session_ = session;

    std::uint16_t port = 0;
    std::exception_ptr failure;
    try {
        port = co_await session.listener->start(stop);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!owns(session, Phase::starting)) {
        session.listener->cancel();
        throw CancellationError();
    }
    QUrl url;
    if (!failure) {
        url = QUrl(QStringLiteral("http://127.0.0.1:%1/oauth/callback").arg(port), QUrl::StrictMode);
        if (!url.isValid() || port == 0) failure = std::make_exception_ptr(LoopbackOAuthReceiverError(Kind::listenerUnavailable));
    }
    if (failure) {
        phase_ = Phase::terminated;
        session.listener->cancel();
        std::rethrow_exception(failure);
    }
    phase_ = Phase::listening;
    co_return url;
}

bool LoopbackOAuthReceiver::beginFinishing(const Session& session) {
    if (owns(session, Phase::waiting)) {
        phase_ = Phase::finishing;
        return true;
    }
    return owns(session, Phase::finishing);
}

void LoopbackOAuthReceiver::terminateIfOwned(const Session& session) {
    if (owns(session, Phase::finishing)) phase_ = Phase::terminated;
}

QCoro::Task<QString> LoopbackOAuthReceiver::waitForCallback(QString expectedState, std::stop_token stop) {
    auto self = shared_from_this();
    switch (phase_) {
    case Phase::starting:
    case Phase::idle: throw LoopbackOAuthReceiverError(Kind::notStarted);
    case Phase::waiting:
    case Phase::finishing:
    case Phase::terminated: throw LoopbackOAuthReceiverError(Kind::callbackAlreadyConsumed);
    case Phase::listening: break;
    }
    phase_ = Phase::waiting;
    const Session session = *session_;

    WaitOutcome outcome;
    {
        auto onStop = cancelListenerOnStop(stop, session.listener);
        outcome = co_await firstOfRequestOrTimeout(session.listener, timeoutClock_, callbackTimeout_);
    }
    if (!owns(session, Phase::waiting)) throw CancellationError();

    QString code;
    std::exception_ptr failure = outcome.error;
    if (outcome.timedOut) failure = std::make_exception_ptr(LoopbackOAuthReceiverError(Kind::timedOut));
    if (!failure) {
        try {
            code = OAuthCallback::parse(loopbackCallbackURL(*outcome.request), expectedState);
        } catch (...) {
            failure = std::current_exception();
        }
    }
    if (failure) co_return co_await finishWithFailure(session, failure, outcome.request.has_value());

    if (!beginFinishing(session)) throw CancellationError();
    try {
        auto onStop = cancelListenerOnStop(stop, session.listener);
        co_await session.listener->sendResponse(loopbackResponse(true), stop);
        checkCancellation(stop);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) co_return co_await finishWithFailure(session, failure, true);

    session.listener->cancel();
    if (!owns(session, Phase::finishing)) throw CancellationError();
    phase_ = Phase::terminated;
    co_return code;
}

QCoro::Task<QString> LoopbackOAuthReceiver::finishWithFailure(Session session, std::exception_ptr error,
                                                              bool requestReceived) {
    auto self = shared_from_this();
    if (beginFinishing(session) && requestReceived) {
        try {
            co_await session.listener->sendResponse(loopbackResponse(false));
        } catch (...) {
            // The browser may have gone; the attempt has failed either way.
        }
    }
    session.listener->cancel();
    terminateIfOwned(session);
    std::rethrow_exception(error);
}

void LoopbackOAuthReceiver::cancel() {
    phase_ = Phase::terminated;
    if (auto session = std::exchange(session_, std::nullopt)) session->listener->cancel();
}

} // namespace tavelo
