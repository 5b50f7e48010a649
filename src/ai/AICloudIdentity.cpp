// AICloudStore: signing in and out, sessions, the ChatGPT link.

#include "ai/AICloudStore.h"
#include "ai/AICloudStoreInternal.h"

#include "support/Observable.h"

#include "ai/CloudJson.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <QStringDecoder>
#include <QTextBoundaryFinder>

namespace tavelo {

using namespace aicloud;

// --- signing in and out -------------------------------------------------------------------

QCoro::Task<bool> AICloudStore::prepareReplacement(std::int64_t generation, std::stop_token stop) {
    if (!session_ || !beforeDisconnect_) co_return false;
    QPointer<AICloudStore> self(this);
    auto hook = beforeDisconnect_;
    try {
        co_await hook();
        ensureCurrent(self, generation, stop);
    } catch (...) {
        // The hook ran (or began to): whatever ends the replacement here,
        // the parts it stopped go on with the old session.
        if (self && afterDisconnectFailure_) afterDisconnectFailure_();
        throw;
    }
    co_return true;
}

QCoro::Task<void> AICloudStore::saveReplacementToken(QString token, QString key, bool preparedReplacement,
                                                     std::int64_t generation, std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    try {
        co_await saveToken(std::move(token), std::move(key));
        ensureCurrent(self, generation, stop);
    } catch (...) {
        // A failure, a cancellation or a newer sign-in: the replacement did
        // not complete, so the parts stopped for it go on with the old
        // session.
        if (self && preparedReplacement && afterDisconnectFailure_) afterDisconnectFailure_();
        throw;
    }
}

QCoro::Task<void> AICloudStore::signIn(QString email, QString password, std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    beginGeneration();
    emitChanges();
    const std::int64_t generation = generation_;
    const QString hosted = configuration_.hostedEndpoint;

    const auto reply = co_await identityRequest(QStringLiteral("accounts:signInWithPassword"),
                                                passwordBody(email, password),
                                                false, stop);
    ensureCurrent(self, generation, stop);
    const auto idToken = member(reply, "idToken");
    const auto refreshToken = member(reply, "refreshToken");
    if (!idToken || !refreshToken) throw CloudError(kSignInFailed);

    const auto session =
        co_await send<TaveloSession>("GET", QStringLiteral("session"), std::nullopt, hosted, *idToken, stop);
    ensureCurrent(self, generation, stop);
    if (session.kind != TaveloSession::Kind::identity || session.userID.isEmpty() ||
        session.userID == QLatin1String("owner"))
        throw CloudError(kSessionUnconfirmed);

    const bool prepared = co_await prepareReplacement(generation, stop);
    co_await saveReplacementToken(*refreshToken, kIdentityKeyPrefix + hosted, prepared, generation, stop);

    identityToken_ = *idToken;
    identityExpiry_ = deps_.now().addingSeconds(kIdentityTokenLifetime);
    activate(session, hosted, false);
}

QCoro::Task<void> AICloudStore::connectPrivateServer(QString endpoint, QString token, std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    QString trimmed = endpoint.trimmed();
    while (trimmed.startsWith(QLatin1Char('/'))) trimmed.remove(0, 1);
    while (trimmed.endsWith(QLatin1Char('/'))) trimmed.chop(1);

    const QUrl url(trimmed, QUrl::StrictMode);
    const QString scheme = url.scheme();
    const QString host = url.host();
    const bool acceptable =
        url.isValid() && !host.isEmpty() &&
        (scheme == QLatin1String("https") ||
         (scheme == QLatin1String("http") && (host == QLatin1String("localhost") || host == QLatin1String("127.0.0.1")))) &&
        url.userName().isEmpty() && url.password().isEmpty() && !url.hasQuery() && !url.hasFragment() &&
        visibleLength(token) >= kMinimumKeyLength;
    if (!acceptable) throw CloudError(kBadEndpointOrKey);

    beginGeneration();
    emitChanges();
    const std::int64_t generation = generation_;

    const auto session =
        co_await send<TaveloSession>("GET", QStringLiteral("session"), std::nullopt, trimmed, token, stop);
    ensureCurrent(self, generation, stop);
    if (session.kind != TaveloSession::Kind::owner || session.userID != QLatin1String("owner"))
        throw CloudError(kNotOwnerServer);

    const bool prepared = co_await prepareReplacement(generation, stop);
    co_await saveReplacementToken(token, trimmed, prepared, generation, stop);

    identityToken_.reset();
    identityExpiry_ = kDistantPast;
    activate(session, trimmed, false);
}

void AICloudStore::activate(const TaveloSession& session, const QString& endpoint, bool restoring) {
    beginGeneration();
    const QString workspace = workspaceID(endpoint, session.userID);
    const QString workspaceKey = kConnectionIDPrefix + workspace;

    // A fresh sign-in always starts a new connection; a restart keeps it.
    QString connection = restoring ? deps_.defaults->string(workspaceKey).value_or(QString()) : QString();
    if (connection.isEmpty()) connection = newConnectionID();
    setConnectionID(connection);
    deps_.defaults->setString(workspaceKey, connection);
    deps_.defaults->setString(kConnectionIDKey, connection);

    setEndpoint(endpoint);
    deps_.defaults->setString(kEndpointKey, endpoint);
    deps_.defaults->setString(kAuthKindKey, QString::fromLatin1(toString(session.kind)));

    setSession(session);
    setTaveloEmail(session.email);
    setAccount(std::nullopt);
    setState(AICloudState{});
    setErrorMessage(std::nullopt);

    // Show the schedules known from the last run before the first refresh.
    if (auto cached = readCache(workspace)) setState(std::move(*cached));
    emitChanges();
}

QCoro::Task<void> AICloudStore::restoreSession(std::stop_token stop) {
    if (session_ || endpoint_.isEmpty() || isRestoringSession_) co_return;
    QPointer<AICloudStore> self(this);
    beginGeneration();
    const std::int64_t generation = generation_;
    setIsRestoringSession(true);
    emitChanges();

    std::exception_ptr failure;
    try {
        const auto session = co_await send<TaveloSession>("GET", QStringLiteral("session"), std::nullopt,
                                                          std::nullopt, std::nullopt, stop);
        ensureCurrent(self, generation, stop);
        if (session.userID.isEmpty()) throw CloudError(kSessionUnconfirmed);
        activate(session, endpoint_, true);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return;
    // The endpoint, keys and defaults stay, so that the next start tries again.
    if (failure && generation == generation_ && !isCancellation(failure))
        setErrorMessage(localizedDescription(failure));
    if (generation == generation_) setIsRestoringSession(false);
    emitChanges();
}

QCoro::Task<void> AICloudStore::signOut(std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    beginGeneration();
    emitChanges();
    const std::int64_t generation = generation_;
    if (beforeDisconnect_) {
        auto hook = beforeDisconnect_;
        co_await hook();
    }
    ensureCurrent(self, generation, stop);

    const QString connection = newConnectionID();
    setConnectionID(connection);
    deps_.defaults->setString(kConnectionIDKey, connection);

    const QString oldEndpoint = endpoint_;
    storedTokens_.clear();
    setSession(std::nullopt);
    setIsRestoringSession(false);
    setIsRefreshing(false);
    setEndpoint(QString());
    identityToken_.reset();
    setTaveloEmail(std::nullopt);
    setAccount(std::nullopt);
    setState(AICloudState{});
    setErrorMessage(std::nullopt);
    deps_.defaults->remove(kEndpointKey);
    deps_.defaults->remove(kEmailKey);
    deps_.defaults->remove(kAuthKindKey);
    emitChanges();

    // The store is signed out already; the keys go after. The keychain lock
    // keeps a later sign-in's save behind these removals. Failures are
    // ignored: a stale key is harmless without its endpoint.
    if (oldEndpoint.isEmpty()) co_return;
    co_await removeToken(oldEndpoint);
    if (self) co_await removeToken(kIdentityKeyPrefix + oldEndpoint);
}

QCoro::Task<void> AICloudStore::resetPassword(QString email, std::stop_token stop) {
    co_await identityRequest(QStringLiteral("accounts:sendOobCode"),
                             oobCodeBody(QStringLiteral("PASSWORD_RESET"), "email", email), false,
                             stop);
}

QCoro::Task<void> AICloudStore::registerAccount(QString email, QString password, std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    const auto reply = co_await identityRequest(QStringLiteral("accounts:signUp"),
                                                passwordBody(email, password),
                                                false, stop);
    ensureCurrent(self, generation, stop);
    const auto idToken = member(reply, "idToken");
    if (!idToken) throw CloudError(kSignInFailed);
    co_await identityRequest(QStringLiteral("accounts:sendOobCode"),
                             oobCodeBody(QStringLiteral("VERIFY_EMAIL"), "idToken", *idToken),
                             false, stop);
}

QCoro::Task<void> AICloudStore::resendVerification(QString email, QString password, std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    const auto reply = co_await identityRequest(QStringLiteral("accounts:signInWithPassword"),
                                                passwordBody(email, password),
                                                false, stop);
    ensureCurrent(self, generation, stop);
    const auto idToken = member(reply, "idToken");
    if (!idToken) throw CloudError(kSignInFailed);
    co_await identityRequest(QStringLiteral("accounts:sendOobCode"),
                             oobCodeBody(QStringLiteral("VERIFY_EMAIL"), "idToken", *idToken),
                             false, stop);
}

// --- ChatGPT link ----------------------------------------------------------------------

QCoro::Task<AILogin> AICloudStore::login(std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    auto sleep = deps_.sleep;
    auto now = deps_.now;
    const QString authHost = configuration_.openAIAuthHost;

    auto progress = co_await send<Progress>("POST", QStringLiteral("login"), std::nullopt, std::nullopt,
                                            std::nullopt, stop);
    // The server relays OpenAI's device-code flow; poll until it has a code.
    for (int poll = 0;; ++poll) {
        ensureCurrent(self, generation, stop);
        if (progress.verificationUrl && progress.userCode && (!progress.expiresAt || *progress.expiresAt > now())) {
            const QUrl& url = *progress.verificationUrl;
            if (url.scheme() != QLatin1String("https") || url.host().compare(authHost, Qt::CaseInsensitive) != 0)
                throw CloudError(kBadVerificationURL);
            co_return AILogin{.expiresAt = progress.expiresAt, .verificationUrl = url, .userCode = *progress.userCode};
        }
        if (progress.status == QLatin1String("failed") || progress.status == QLatin1String("expired"))
            throw CloudError(kLoginExpired);
        co_await sleep(kLoginPollInterval, stop);
        ensureCurrent(self, generation, stop);
        progress = co_await send<Progress>("GET", QStringLiteral("login"), std::nullopt, std::nullopt, std::nullopt,
                                           stop);
        if (poll == kLoginPollLimit - 1) throw CloudError(kLoginSlow);
    }
}

QCoro::Task<void> AICloudStore::logout(std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    co_await send<CloudStringMap>("POST", QStringLiteral("logout"), std::nullopt, std::nullopt, std::nullopt, stop);
    if (!self || generation != generation_) co_return;
    setAccount(std::nullopt);
    emitChanges();
}

QCoro::Task<void> AICloudStore::refreshAccount(std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    auto account =
        co_await send<AIAccount>("GET", QStringLiteral("account"), std::nullopt, std::nullopt, std::nullopt, stop);
    if (!self || generation != generation_) co_return;
    setAccount(std::move(account));
    emitChanges();
}


} // namespace tavelo
