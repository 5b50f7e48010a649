#pragma once

// Qt first: moc needs its configuration before the standard headers.
#include <QObject>

#include "ai/AISchedule.h"
#include "ai/CloudSession.h"
#include "support/Async.h"
#include "support/Date.h"
#include "support/Defaults.h"
#include "support/HTTPTransport.h"
#include "support/SecretStore.h"

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QPointer>
#include <QString>

#include <concepts>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <string_view>
#include <variant>

namespace tavelo {

// Reply types of the cloud decode themselves from the reply body.
template <class T>
concept CloudReply = requires(std::string_view text) {
    { T::fromCloudJson(text) } -> std::same_as<T>;
};

// The one long-lived object through which the application talks to its
// cloud: who is signed in, the credentials, the single authenticated request
// path (`send`) for every other cloud component, the identity of the per-user
// workspace, and the AI schedules. Two ways in: a hosted account (e-mail and
// password through the identity service) and a private server (endpoint and
// connection key). Main thread only; operations interleave only at their
// waits, and `generation` drops every result that arrives after an account
// change.
//
// Configuration. Four values are configured rather than fixed; each is a
// constant that a user default of the name given can override (read once,
// at construction):
//   "aiCloudHostedEndpoint"      hosted cloud base URL, default kDefaultHostedEndpoint
//   "aiCloudIdentityToolkitURL"  identity service base,   default kDefaultIdentityToolkitURL
//   "aiCloudSecureTokenURL"      secure-token service base, default kDefaultSecureTokenURL
//   "aiCloudOpenAIAuthHost"      host a ChatGPT verification URL must name, default kDefaultOpenAIAuthHost
// The two identity bases carry their scheme ("https://..."); the identity
// request appends "/v1/<path>" or "/v1/token" and "?key=<apiKey>".
class AICloudStore : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString endpoint READ endpoint NOTIFY endpointChanged)
    Q_PROPERTY(QString errorMessage READ errorMessageText NOTIFY errorMessageChanged)
    Q_PROPERTY(bool isRestoringSession READ isRestoringSession NOTIFY isRestoringSessionChanged)
    Q_PROPERTY(bool isRefreshing READ isRefreshing NOTIFY isRefreshingChanged)
    Q_PROPERTY(QString taveloEmail READ taveloEmailText NOTIFY taveloEmailChanged)
    Q_PROPERTY(bool hasSession READ hasSession NOTIFY sessionChanged)
    Q_PROPERTY(bool isChatGPTConnected READ isChatGPTConnected NOTIFY accountChanged)
    Q_PROPERTY(QString workspaceID READ workspaceIDText NOTIFY workspaceIDChanged)
    Q_PROPERTY(QString connectionID READ connectionID NOTIFY connectionIDChanged)
    Q_PROPERTY(QString hostedEndpoint READ hostedEndpoint CONSTANT)

public:
    static constexpr const char* kDefaultHostedEndpoint = "https://cloud.tavelo.app";
    static constexpr const char* kDefaultIdentityToolkitURL = "https://identitytoolkit.googleapis.com";
    static constexpr const char* kDefaultSecureTokenURL = "https://securetoken.googleapis.com";
    static constexpr const char* kDefaultOpenAIAuthHost = "auth.openai.com";

    // Secret-store service of every item of this store.
    static constexpr const char* kKeychainService = "jp.tavelo.app.ai-cloud";

    // The reply of POST and GET /v1/login.
    struct Progress {
        std::optional<QString> status;
        std::optional<QUrl> verificationUrl;
        std::optional<QString> userCode;
        std::optional<Date> expiresAt;

        static Progress fromCloudJson(std::string_view text);
    };

    // The reply of GET /v1/config: the key for the identity service.
    struct Config {
        QString apiKey;

        static Config fromCloudJson(std::string_view text);
    };

    struct Configuration {
        QString hostedEndpoint = QString::fromLatin1(kDefaultHostedEndpoint);
        QString identityToolkitURL = QString::fromLatin1(kDefaultIdentityToolkitURL);
        QString secureTokenURL = QString::fromLatin1(kDefaultSecureTokenURL);
        QString openAIAuthHost = QString::fromLatin1(kDefaultOpenAIAuthHost);

        // The defaults above, each overridden by its user default when set
        // and not empty.
        static Configuration fromDefaults(const Defaults& defaults);
    };

    struct Dependencies {
        std::shared_ptr<Defaults> defaults;
        std::shared_ptr<SecretStore> secrets;
        std::shared_ptr<HTTPTransport> transport;
        // Folder of the per-workspace caches; see standardCacheDirectory().
        QString cacheDirectory;
        Clock now = systemClock();
        SleepFunction sleep = eventLoopSleep();
        // Without it, Configuration::fromDefaults(*defaults).
        std::optional<Configuration> configuration;
    };

    explicit AICloudStore(Dependencies dependencies, QObject* parent = nullptr);
    ~AICloudStore() override;

    // "$XDG_DATA_HOME/jp.tavelo.app".
    static QString standardCacheDirectory();
    // SHA-256 of "<endpoint>\n<userID>" as 64 lower-case hexadecimal digits.
    static QString workspaceID(const QString& endpoint, const QString& userID);

    // --- observable state --------------------------------------------------
    const AICloudState& state() const { return state_; }
    const std::optional<AIAccount>& account() const { return account_; }
    const std::optional<QString>& errorMessage() const { return errorMessage_; }
    const QString& endpoint() const { return endpoint_; }
    const std::optional<TaveloSession>& session() const { return session_; }
    bool isRestoringSession() const { return isRestoringSession_; }
    bool isRefreshing() const { return isRefreshing_; }
    const std::optional<QString>& taveloEmail() const { return taveloEmail_; }
    // Nothing without a session.
    std::optional<QString> workspaceID() const;
    const QString& connectionID() const { return connectionID_; }
    const Configuration& configuration() const { return configuration_; }
    QString hostedEndpoint() const { return configuration_.hostedEndpoint; }

    QString errorMessageText() const { return errorMessage_.value_or(QString()); }
    QString taveloEmailText() const { return taveloEmail_.value_or(QString()); }
    bool hasSession() const { return session_.has_value(); }
    bool isChatGPTConnected() const { return account_ && account_->connected; }
    QString workspaceIDText() const { return workspaceID().value_or(QString()); }

    // Runs before an existing session is replaced or dropped; its failure
    // stops the replacement. Set by the application root.
    void setBeforeDisconnect(std::function<QCoro::Task<void>()> hook) { beforeDisconnect_ = std::move(hook); }
    // Runs when a replacement failed after `beforeDisconnect` had run.
    void setAfterDisconnectFailure(std::function<void()> hook) { afterDisconnectFailure_ = std::move(hook); }

    // --- account and session ---------------------------------------------
    // Rebuilds the stored session at start. Never fails: a failure is left in
    // `errorMessage` and the stored endpoint and keys stay for the next start.
    QCoro::Task<void> restoreSession(std::stop_token stop = {});
    // Signs in to a private server with its connection key.
    QCoro::Task<void> connectPrivateServer(QString endpoint, QString token, std::stop_token stop = {});
    // Signs in to the hosted account.
    QCoro::Task<void> signIn(QString email, QString password, std::stop_token stop = {});
    // Asks the identity service to send a password-reset mail.
    QCoro::Task<void> resetPassword(QString email, std::stop_token stop = {});
    // Creates a hosted account and asks for its confirmation mail. Does not
    // sign in.
    QCoro::Task<void> registerAccount(QString email, QString password, std::stop_token stop = {});
    // Sends the confirmation mail of an existing account again.
    QCoro::Task<void> resendVerification(QString email, QString password, std::stop_token stop = {});
    // Signs out of this machine. The cloud is not told; its schedules go on.
    QCoro::Task<void> signOut(std::stop_token stop = {});

    // --- ChatGPT link --------------------------------------------------------
    QCoro::Task<AILogin> login(std::stop_token stop = {});
    QCoro::Task<void> logout(std::stop_token stop = {});
    QCoro::Task<void> refreshAccount(std::stop_token stop = {});

    // --- AI schedules ----------------------------------------------------------
    // Fetches the schedules and runs and writes the cache. Never fails; a
    // failure is left in `errorMessage` and the last state stays.
    QCoro::Task<void> refresh(std::stop_token stop = {});
    QCoro::Task<void> save(AISchedule schedule, std::stop_token stop = {});
    QCoro::Task<void> runNow(UUID scheduleID, std::stop_token stop = {});
    QCoro::Task<void> deleteSchedule(UUID scheduleID, std::stop_token stop = {});
    std::optional<AIRun> latestRun(const UUID& scheduleID, std::optional<Date> at = std::nullopt) const {
        return state_.latestRun(scheduleID, at);
    }
    // The cache file of the current workspace; nothing without a session.
    std::optional<QString> cacheFilePath() const;

    // --- the common request path -------------------------------------------------
    // `method` on "<base>/v1/<path>" with a bearer token; the reply decoded as
    // T. Base is `endpoint` or the store's; the token is `token` or the
    // stored credential. A reply that arrives after an account change or a
    // stop request fails with CancellationError.
    template <CloudReply T>
    QCoro::Task<T> send(QByteArray method, QString path, std::optional<QByteArray> body = std::nullopt,
                        std::optional<QString> endpoint = std::nullopt, std::optional<QString> token = std::nullopt,
                        std::stop_token stop = {}) {
        const QByteArray data = co_await sendData(std::move(method), std::move(path), std::move(body),
                                                  std::move(endpoint), std::move(token), std::move(stop));
        co_return T::fromCloudJson(std::string_view(data.constData(), static_cast<std::size_t>(data.size())));
    }
    // The same, giving the body of a successful reply undecoded.
    QCoro::Task<QByteArray> sendData(QByteArray method, QString path, std::optional<QByteArray> body,
                                     std::optional<QString> endpoint, std::optional<QString> token,
                                     std::stop_token stop = {});

    // The bearer token for `endpoint`: the identity token while it is fresh,
    // the connection key of a private server, or a new identity token from
    // the stored refresh token.
    QCoro::Task<QString> credential(QString endpoint, std::stop_token stop = {});

signals:
    void stateChanged();
    void accountChanged();
    void errorMessageChanged();
    void endpointChanged();
    void sessionChanged();
    void isRestoringSessionChanged();
    void isRefreshingChanged();
    void taveloEmailChanged();
    void workspaceIDChanged();
    void connectionIDChanged();

private:
    // String members of a JSON object reply of the identity service.
    using IdentityReply = std::map<QString, QString>;
    using Remembered = std::variant<QString, CloudError>;

    QCoro::Task<IdentityReply> identityRequest(QString path, QByteArray body, bool refresh, std::stop_token stop);
    void activate(const TaveloSession& session, const QString& endpoint, bool restoring);
    // Adds one to the generation and clears the two progress flags.
    void beginGeneration();
    // Throws CancellationError when the store is gone, the generation moved on
    // or the task was stopped.
    static void ensureCurrent(const QPointer<AICloudStore>& self, std::int64_t generation, const std::stop_token& stop);
    // Awaits `beforeDisconnect` when a session is about to be replaced;
    // true when it ran. From then on, `afterDisconnectFailure` runs if the
    // replacement does not complete, for whatever reason (failure,
    // cancellation, a newer sign-in).
    QCoro::Task<bool> prepareReplacement(std::int64_t generation, std::stop_token stop);
    // Saves the new session's secret and checks that the replacement is
    // still wanted; the last step before the new session is activated.
    QCoro::Task<void> saveReplacementToken(QString token, QString key, bool preparedReplacement,
                                           std::int64_t generation, std::stop_token stop);

    QCoro::Task<QString> loadToken(QString key);
    QCoro::Task<void> saveToken(QString token, QString key);
    QCoro::Task<void> removeToken(QString key);

    void writeCache();
    std::optional<AICloudState> readCache(const QString& workspaceID) const;

    void setState(AICloudState state);
    void setAccount(std::optional<AIAccount> account);
    void setErrorMessage(std::optional<QString> message);
    void setEndpoint(QString endpoint);
    void setSession(std::optional<TaveloSession> session);
    void setIsRestoringSession(bool value);
    void setIsRefreshing(bool value);
    void setTaveloEmail(std::optional<QString> email);
    void setConnectionID(QString id);
    // Emits the signals of everything changed since the last call.
    void emitChanges();

    Dependencies deps_;
    Configuration configuration_;

    AICloudState state_;
    std::optional<AIAccount> account_;
    std::optional<QString> errorMessage_;
    QString endpoint_;
    std::optional<TaveloSession> session_;
    bool isRestoringSession_ = false;
    bool isRefreshing_ = false;
    std::optional<QString> taveloEmail_;
    QString connectionID_;

    std::function<QCoro::Task<void>()> beforeDisconnect_;
    std::function<void()> afterDisconnectFailure_;

    std::optional<QString> identityToken_;
    Date identityExpiry_;
    std::map<QString, Remembered> storedTokens_;
    std::int64_t generation_ = 0;
    // Orders secret-store calls, so that a removal issued before a save can
    // never land after it.
    std::shared_ptr<AsyncFifoLock> keychainLock_;

    unsigned pendingChanges_ = 0;
    std::optional<QString> notifiedWorkspaceID_;
};

} // namespace tavelo
