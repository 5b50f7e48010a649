#include "ai/AICloudStore.h"

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

Q_LOGGING_CATEGORY(lcAICloud, "tavelo.aicloud")

namespace {

// --- user defaults -----------------------------------------------------------
const QString kEndpointKey = QStringLiteral("aiCloudEndpoint");
const QString kAuthKindKey = QStringLiteral("taveloAuthKind");
const QString kConnectionIDKey = QStringLiteral("aiCloudConnectionID");
const QString kConnectionIDPrefix = QStringLiteral("aiCloudConnectionID.");
const QString kEmailKey = QStringLiteral("taveloEmail");
const QString kHostedEndpointKey = QStringLiteral("aiCloudHostedEndpoint");
const QString kIdentityToolkitKey = QStringLiteral("aiCloudIdentityToolkitURL");
const QString kSecureTokenKey = QStringLiteral("aiCloudSecureTokenURL");
const QString kOpenAIAuthHostKey = QStringLiteral("aiCloudOpenAIAuthHost");

const QString kIdentityKeyPrefix = QStringLiteral("identity:");

// --- texts ---------------------------------------------------------------------
const QString kNotConnected = QStringLiteral("設定でAI Cloudに接続してください。");
const QString kCannotReachCloud = QStringLiteral("クラウドへ接続できませんでした。");
const QString kRegistrationUnavailable = QStringLiteral("ユーザー登録は準備中です。");
const QString kIdentityRefused =
    QStringLiteral("認証できませんでした。メールアドレス・パスワードを確認してください。登録済みの場合はログインしてください。");
const QString kSignInFailed = QStringLiteral("ログインに失敗しました。");
const QString kSessionUnconfirmed = QStringLiteral("ログインを確認できませんでした。");
const QString kSignInAgain = QStringLiteral("もう一度Taveloにログインしてください。");
const QString kBadEndpointOrKey = QStringLiteral("HTTPSの接続先とクラウド接続キーを入力してください。");
const QString kNotOwnerServer = QStringLiteral("専用サーバーの認証を確認できませんでした。");
const QString kKeySaveFailed = QStringLiteral("接続キーをキーチェーンに保存できませんでした。");
const QString kKeyMissing = QStringLiteral("設定でクラウド接続キーを入力してください。");
const QString kKeyReadFailed =
    QStringLiteral("接続キーを読み取れませんでした。キーチェーンのアクセスを確認してTaveloを再起動してください。");
const QString kLoginExpired = QStringLiteral("認証の有効期限が切れました。もう一度ログインしてください。");
const QString kBadVerificationURL = QStringLiteral("認証URLを確認できませんでした。");
const QString kLoginSlow = QStringLiteral("認証の準備に時間がかかっています。しばらく待って再試行してください。");
const QString kCacheWriteFailed = QStringLiteral("AI Scheduleのキャッシュを保存できませんでした。");

constexpr double kRequestTimeout = 40.0;
constexpr double kConfigTimeout = 60.0;
constexpr double kIdentityTimeout = 30.0;
constexpr double kIdentityTokenLifetime = 3500.0;
constexpr double kLoginPollInterval = 3.0;
constexpr int kLoginPollLimit = 80;
constexpr int kMinimumKeyLength = 32;
constexpr qint64 kMaximumCacheBytes = 64LL * 1024 * 1024;
// The earliest instant the platform names; an expiry that has always passed.
constexpr Date kDistantPast = Date::fromReferenceSeconds(-63114076800.0);

enum Change : unsigned {
    kStateChange = 1u << 0,
    kAccountChange = 1u << 1,
    kErrorMessageChange = 1u << 2,
    kEndpointChange = 1u << 3,
    kSessionChange = 1u << 4,
    kRestoringChange = 1u << 5,
    kRefreshingChange = 1u << 6,
    kEmailChange = 1u << 7,
    kConnectionIDChange = 1u << 8,
};

qsizetype visibleLength(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() != -1) ++count;
    return count;
}

QString trimmedBaseURL(QString text) {
    text = text.trimmed();
    while (text.endsWith(QLatin1Char('/'))) text.chop(1);
    return text;
}

// "<base>/v1/<path>", when that is an absolute URL with a host.
std::optional<QUrl> cloudURL(const QString& base, const QString& path) {
    if (base.isEmpty()) return std::nullopt;
    const QUrl url(base + QStringLiteral("/v1/") + path, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) return std::nullopt;
    return url;
}

QByteArray jsonObject(std::initializer_list<std::pair<std::string_view, QString>> strings,
                      std::optional<std::pair<std::string_view, bool>> flag = std::nullopt) {
    std::string out;
    JsonWriter w(out);
    w.beginObject();
    for (const auto& [key, value] : strings) {
        w.key(key);
        w.string(value);
    }
    if (flag) {
        w.key(flag->first);
        w.boolean(flag->second);
    }
    w.endObject();
    return cloudjson::toBytes(out);
}

QByteArray passwordBody(const QString& email, const QString& password) {
    return jsonObject({{"email", email}, {"password", password}}, std::pair<std::string_view, bool>{"returnSecureToken", true});
}

QByteArray refreshBody(const QString& refreshToken) {
    return jsonObject({{"grant_type", QStringLiteral("refresh_token")}, {"refresh_token", refreshToken}});
}

QByteArray oobCodeBody(const QString& requestType, const char* key, const QString& value) {
    return jsonObject({{"requestType", requestType}, {key, value}});
}

QByteArray runBody(const UUID& scheduleID) { return jsonObject({{"scheduleID", scheduleID.toString().toLower()}}); }

// The string members of a JSON object; nothing when the text is no object.
std::optional<std::map<QString, QString>> stringMembers(const QByteArray& body) {
    try {
        JsonDocumentParser parser;
        simdjson::dom::object object;
        if (parser.parse(std::string_view(body.constData(), static_cast<std::size_t>(body.size())))
                .get_object()
                .get(object) != simdjson::SUCCESS)
            return std::nullopt;
        std::map<QString, QString> members;
        for (auto field : object) {
            std::string_view text;
            if (field.value.get_string().get(text) != simdjson::SUCCESS) continue;
            members[QString::fromUtf8(field.key.data(), static_cast<qsizetype>(field.key.size()))] =
                QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
        }
        return members;
    } catch (const JsonDecodingError&) {
        return std::nullopt;
    }
}

std::optional<QString> member(const std::map<QString, QString>& members, const char* key) {
    auto it = members.find(QString::fromLatin1(key));
    if (it == members.end()) return std::nullopt;
    return it->second;
}

struct LockRelease {
    std::shared_ptr<AsyncFifoLock> lock;
    ~LockRelease() { lock->release(); }
};

QString rememberedToken(const std::variant<QString, CloudError>& remembered) {
    if (const auto* error = std::get_if<CloudError>(&remembered)) throw *error;
    return std::get<QString>(remembered);
}

std::variant<QString, CloudError> interpretRead(const SecretReadResult& result) {
    if (result.status == SecretStatus::success) {
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        QString text = decoder(result.data);
        if (decoder.hasError()) return CloudError(kKeyMissing);
        return text;
    }
    if (result.status == SecretStatus::itemNotFound) return CloudError(kKeyMissing, result.status);
    return CloudError(kKeyReadFailed, result.status);
}

QString newConnectionID() { return UUID::random().toString(); }

} // namespace

// --- records of this store -------------------------------------------------------

AICloudStore::Progress AICloudStore::Progress::fromCloudJson(std::string_view text) {
    JsonDocumentParser parser;
    JsonPath root;
    const auto o = JsonValue(parser.parse(text), &root).object();
    return Progress{
        .status = optional<QString>(o, "status"),
        .verificationUrl = optional<QUrl>(o, "verificationUrl"),
        .userCode = optional<QString>(o, "userCode"),
        .expiresAt = cloudjson::optionalDate(o, "expiresAt"),
    };
}

AICloudStore::Config AICloudStore::Config::fromCloudJson(std::string_view text) {
    JsonDocumentParser parser;
    JsonPath root;
    const auto o = JsonValue(parser.parse(text), &root).object();
    return Config{.apiKey = required<QString>(o, "apiKey")};
}

AICloudStore::Configuration AICloudStore::Configuration::fromDefaults(const Defaults& defaults) {
    Configuration configuration;
    auto apply = [&](const QString& key, QString& value, bool isURL) {
        const auto stored = defaults.string(key);
        if (!stored) return;
        const QString text = isURL ? trimmedBaseURL(*stored) : stored->trimmed().toLower();
        if (!text.isEmpty()) value = text;
    };
    apply(kHostedEndpointKey, configuration.hostedEndpoint, true);
    apply(kIdentityToolkitKey, configuration.identityToolkitURL, true);
    apply(kSecureTokenKey, configuration.secureTokenURL, true);
    apply(kOpenAIAuthHostKey, configuration.openAIAuthHost, false);
    return configuration;
}

// --- construction ------------------------------------------------------------------

AICloudStore::AICloudStore(Dependencies dependencies, QObject* parent)
    : QObject(parent), deps_(std::move(dependencies)), keychainLock_(std::make_shared<AsyncFifoLock>()) {
    if (!deps_.defaults) deps_.defaults = std::make_shared<SettingsDefaults>();
    if (!deps_.secrets) deps_.secrets = std::make_shared<KeychainSecretStore>();
    if (!deps_.transport) deps_.transport = std::make_shared<NetworkHTTPTransport>();
    if (deps_.cacheDirectory.isEmpty()) deps_.cacheDirectory = standardCacheDirectory();
    if (!deps_.now) deps_.now = systemClock();
    if (!deps_.sleep) deps_.sleep = eventLoopSleep();
    configuration_ = deps_.configuration.value_or(Configuration::fromDefaults(*deps_.defaults));

    endpoint_ = deps_.defaults->string(kEndpointKey).value_or(QString());
    const auto storedConnectionID = deps_.defaults->string(kConnectionIDKey);
    connectionID_ = storedConnectionID && !storedConnectionID->isEmpty() ? *storedConnectionID : newConnectionID();
    identityExpiry_ = kDistantPast;
}

AICloudStore::~AICloudStore() = default;

QString AICloudStore::standardCacheDirectory() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/jp.tavelo.app");
}

QString AICloudStore::workspaceID(const QString& endpoint, const QString& userID) {
    const QByteArray input = endpoint.toUtf8() + '\n' + userID.toUtf8();
    return QString::fromLatin1(QCryptographicHash::hash(input, QCryptographicHash::Sha256).toHex());
}

std::optional<QString> AICloudStore::workspaceID() const {
    if (!session_) return std::nullopt;
    return workspaceID(endpoint_, session_->userID);
}

std::optional<QString> AICloudStore::cacheFilePath() const {
    const auto id = workspaceID();
    if (!id) return std::nullopt;
    return deps_.cacheDirectory + QStringLiteral("/users/") + *id + QStringLiteral("/ai-cloud-cache.json");
}

// --- generation ---------------------------------------------------------------------

void AICloudStore::beginGeneration() {
    ++generation_;
    setIsRefreshing(false);
    setIsRestoringSession(false);
}

void AICloudStore::ensureCurrent(const QPointer<AICloudStore>& self, std::int64_t generation,
                                 const std::stop_token& stop) {
    if (!self || self->generation_ != generation || stop.stop_requested()) throw CancellationError();
}

// --- the common request path ------------------------------------------------------------

QCoro::Task<QByteArray> AICloudStore::sendData(QByteArray method, QString path, std::optional<QByteArray> body,
                                               std::optional<QString> endpoint, std::optional<QString> token,
                                               std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    const QString base = endpoint.value_or(endpoint_);
    if (!token && path != QLatin1String("session") && !session_) throw CloudError(kNotConnected);
    const auto url = cloudURL(base, path);
    if (!url) throw CloudError(kNotConnected);

    QString bearer;
    if (token)
        bearer = *token;
    else
        bearer = co_await credential(base, stop);
    ensureCurrent(self, generation, stop);

    HTTPRequest request;
    request.method = method;
    request.url = *url;
    request.timeout = kRequestTimeout;
    request.setHeader("Authorization", "Bearer " + bearer.toUtf8());
    request.setHeader("Content-Type", "application/json");
    request.body = std::move(body);

    auto transport = deps_.transport;
    const HTTPResponse response = co_await transport->send(std::move(request), stop);
    ensureCurrent(self, generation, stop);

    if (response.status && *response.status >= 200 && *response.status <= 299) co_return response.body;
    QString message = kCannotReachCloud;
    if (const auto map = CloudStringMap::tryFromCloudJson(
            std::string_view(response.body.constData(), static_cast<std::size_t>(response.body.size())))) {
        auto it = map->values.find(QStringLiteral("error"));
        if (it != map->values.end() && !it->second.isEmpty()) message = it->second;
    }
    throw CloudError(message, std::nullopt, response.status);
}

QCoro::Task<QString> AICloudStore::credential(QString endpoint, std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    if (endpoint == endpoint_ && identityToken_ && identityExpiry_ > deps_.now()) co_return *identityToken_;
    if (deps_.defaults->string(kAuthKindKey) == QLatin1String("owner")) co_return co_await loadToken(endpoint);

    const QString refreshKey = kIdentityKeyPrefix + endpoint;
    const QString refreshToken = co_await loadToken(refreshKey);
    if (!self) throw CancellationError();
    const std::int64_t generation = generation_;
    const auto reply = co_await identityRequest(
        QStringLiteral("token"), refreshBody(refreshToken), true, stop);
    ensureCurrent(self, generation, stop);

    const auto idToken = member(reply, "id_token");
    const auto newRefreshToken = member(reply, "refresh_token");
    if (!idToken || !newRefreshToken) throw CloudError(kSignInAgain);
    co_await saveToken(*newRefreshToken, refreshKey);
    ensureCurrent(self, generation, stop);
    identityToken_ = *idToken;
    identityExpiry_ = deps_.now().addingSeconds(kIdentityTokenLifetime);
    co_return *idToken;
}

// The only request that leaves the cloud's own host: the identity service,
// with the key the cloud hands out in /v1/config. Never carries a bearer.
QCoro::Task<AICloudStore::IdentityReply> AICloudStore::identityRequest(QString path, QByteArray body, bool refresh,
                                                                       std::stop_token stop) {
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    auto transport = deps_.transport;

    const auto configURL = cloudURL(configuration_.hostedEndpoint, QStringLiteral("config"));
    if (!configURL) throw CloudError(kRegistrationUnavailable);
    HTTPRequest configRequest;
    configRequest.method = "GET";
    configRequest.url = *configURL;
    configRequest.timeout = kConfigTimeout;
    const HTTPResponse configResponse = co_await transport->send(std::move(configRequest), stop);
    ensureCurrent(self, generation, stop);

    QString apiKey;
    if (configResponse.status == 200) {
        try {
            apiKey = Config::fromCloudJson(std::string_view(configResponse.body.constData(),
                                                            static_cast<std::size_t>(configResponse.body.size())))
                         .apiKey;
        } catch (const JsonDecodingError&) {
            apiKey.clear();
        }
    }
    if (apiKey.isEmpty()) throw CloudError(kRegistrationUnavailable);

    const QString base = refresh ? configuration_.secureTokenURL + QStringLiteral("/v1/token")
                                 : configuration_.identityToolkitURL + QStringLiteral("/v1/") + path;
    QUrl url(base, QUrl::StrictMode);
    url.setQuery(QStringLiteral("key=") + QString::fromLatin1(QUrl::toPercentEncoding(apiKey)), QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty()) throw CloudError(kRegistrationUnavailable);

    HTTPRequest request;
    request.method = "POST";
    request.url = url;
    request.timeout = kIdentityTimeout;
    request.setHeader("Content-Type", "application/json");
    request.body = std::move(body);
    const HTTPResponse response = co_await transport->send(std::move(request), stop);
    ensureCurrent(self, generation, stop);

    if (response.status != 200) throw CloudError(kIdentityRefused);
    auto members = stringMembers(response.body);
    if (!members) throw CloudError(kIdentityRefused);
    co_return std::move(*members);
}

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

// --- AI schedules -------------------------------------------------------------------------

QCoro::Task<void> AICloudStore::refresh(std::stop_token stop) {
    if (!session_ || isRefreshing_) co_return;
    QPointer<AICloudStore> self(this);
    setIsRefreshing(true);
    emitChanges();
    const std::int64_t generation = generation_;

    std::exception_ptr failure;
    try {
        auto state =
            co_await send<AICloudState>("GET", QStringLiteral("state"), std::nullopt, std::nullopt, std::nullopt, stop);
        ensureCurrent(self, generation, stop);
        setState(std::move(state));
        writeCache();
        setErrorMessage(std::nullopt);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return;
    // On failure the screen keeps showing the last known state.
    if (failure && generation == generation_ && !isCancellation(failure))
        setErrorMessage(localizedDescription(failure));
    if (generation == generation_) setIsRefreshing(false);
    emitChanges();
}

QCoro::Task<void> AICloudStore::save(AISchedule schedule, std::stop_token stop) {
    co_await send<AISchedule>("PUT", QStringLiteral("schedules"), cloudjson::toBytes(encodeJson(schedule)),
                              std::nullopt, std::nullopt, stop);
    co_await refresh(stop);
}

QCoro::Task<void> AICloudStore::runNow(UUID scheduleID, std::stop_token stop) {
    co_await send<CloudStringMap>("POST", QStringLiteral("run"),
                                  runBody(scheduleID), std::nullopt,
                                  std::nullopt, stop);
    co_await refresh(stop);
}

QCoro::Task<void> AICloudStore::deleteSchedule(UUID scheduleID, std::stop_token stop) {
    co_await send<CloudStringMap>("DELETE", QStringLiteral("schedules/") + scheduleID.toString().toLower(),
                                  std::nullopt, std::nullopt, std::nullopt, stop);
    co_await refresh(stop);
}

void AICloudStore::writeCache() {
    const auto path = cacheFilePath();
    if (!path) return;
    if (!QDir().mkpath(QFileInfo(*path).absolutePath())) throw CloudError(kCacheWriteFailed);
    QSaveFile file(*path);
    const std::string json = encodeJson(state_);
    if (!file.open(QIODevice::WriteOnly) ||
        file.write(json.data(), static_cast<qint64>(json.size())) != static_cast<qint64>(json.size()) ||
        !file.commit())
        throw CloudError(kCacheWriteFailed);
}

std::optional<AICloudState> AICloudStore::readCache(const QString& workspaceID) const {
    QFile file(deps_.cacheDirectory + QStringLiteral("/users/") + workspaceID + QStringLiteral("/ai-cloud-cache.json"));
    if (!file.open(QIODevice::ReadOnly) || file.size() > kMaximumCacheBytes) return std::nullopt;
    const QByteArray data = file.readAll();
    try {
        return AICloudState::fromCloudJson(std::string_view(data.constData(), static_cast<std::size_t>(data.size())));
    } catch (const std::exception& error) {
        // The next refresh writes it anew; until then nothing is shown.
        qCWarning(lcAICloud) << "unreadable AI cache" << file.fileName() << error.what();
        return std::nullopt;
    }
}

// --- secret store ------------------------------------------------------------------------------

QCoro::Task<QString> AICloudStore::loadToken(QString key) {
    if (auto it = storedTokens_.find(key); it != storedTokens_.end()) co_return rememberedToken(it->second);
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    auto lock = keychainLock_;
    auto secrets = deps_.secrets;
    co_await lock->acquire(false);
    LockRelease release{lock};
    if (!self) throw CancellationError();
    // Another read or a save may have answered while this one waited.
    if (auto it = storedTokens_.find(key); it != storedTokens_.end()) co_return rememberedToken(it->second);

    const SecretReadResult result = co_await secrets->read(QString::fromLatin1(kKeychainService), key);
    if (!self) throw CancellationError();
    auto outcome = interpretRead(result);
    // Each key is asked once per run, a failure included; an account change
    // in between makes the answer stale.
    if (generation == generation_) storedTokens_.insert_or_assign(key, outcome);
    co_return rememberedToken(outcome);
}

QCoro::Task<void> AICloudStore::saveToken(QString token, QString key) {
    QPointer<AICloudStore> self(this);
    auto lock = keychainLock_;
    auto secrets = deps_.secrets;
    co_await lock->acquire(false);
    LockRelease release{lock};
    const std::int32_t status = co_await secrets->save(QString::fromLatin1(kKeychainService), key, token.toUtf8());
    if (status != SecretStatus::success) throw CloudError(kKeySaveFailed, status);
    if (self) storedTokens_.insert_or_assign(key, token);
}

QCoro::Task<void> AICloudStore::removeToken(QString key) {
    QPointer<AICloudStore> self(this);
    auto lock = keychainLock_;
    auto secrets = deps_.secrets;
    co_await lock->acquire(false);
    LockRelease release{lock};
    co_await secrets->remove(QString::fromLatin1(kKeychainService), key);
    if (self) storedTokens_.erase(key);
}

// --- observable state ---------------------------------------------------------------------------

void AICloudStore::setState(AICloudState state) {
    if (assignIfChanged(state_, std::move(state))) pendingChanges_ |= kStateChange;
}

void AICloudStore::setAccount(std::optional<AIAccount> account) {
    if (assignIfChanged(account_, std::move(account))) pendingChanges_ |= kAccountChange;
}

void AICloudStore::setErrorMessage(std::optional<QString> message) {
    if (assignIfChanged(errorMessage_, std::move(message))) pendingChanges_ |= kErrorMessageChange;
}

void AICloudStore::setEndpoint(QString endpoint) {
    if (assignIfChanged(endpoint_, std::move(endpoint))) pendingChanges_ |= kEndpointChange;
}

void AICloudStore::setSession(std::optional<TaveloSession> session) {
    if (assignIfChanged(session_, std::move(session))) pendingChanges_ |= kSessionChange;
}

void AICloudStore::setIsRestoringSession(bool value) {
    if (assignIfChanged(isRestoringSession_, value)) pendingChanges_ |= kRestoringChange;
}

void AICloudStore::setIsRefreshing(bool value) {
    if (assignIfChanged(isRefreshing_, value)) pendingChanges_ |= kRefreshingChange;
}

void AICloudStore::setTaveloEmail(std::optional<QString> email) {
    if (assignIfChanged(taveloEmail_, std::move(email))) pendingChanges_ |= kEmailChange;
}

void AICloudStore::setConnectionID(QString id) {
    if (assignIfChanged(connectionID_, std::move(id))) pendingChanges_ |= kConnectionIDChange;
}

void AICloudStore::emitChanges() {
    // Signals go out after a whole step, so that a listener never sees a
    // half-applied account change.
    const unsigned changes = std::exchange(pendingChanges_, 0u);
    const auto workspace = workspaceID();
    const bool workspaceChanged = workspace != notifiedWorkspaceID_;
    notifiedWorkspaceID_ = workspace;
    QPointer<AICloudStore> self(this);
    auto emitIf = [&](unsigned bit, void (AICloudStore::*signal)()) {
        if ((changes & bit) && self) (this->*signal)();
    };
    emitIf(kEndpointChange, &AICloudStore::endpointChanged);
    emitIf(kSessionChange, &AICloudStore::sessionChanged);
    emitIf(kEmailChange, &AICloudStore::taveloEmailChanged);
    emitIf(kAccountChange, &AICloudStore::accountChanged);
    emitIf(kStateChange, &AICloudStore::stateChanged);
    emitIf(kErrorMessageChange, &AICloudStore::errorMessageChanged);
    emitIf(kRestoringChange, &AICloudStore::isRestoringSessionChanged);
    emitIf(kRefreshingChange, &AICloudStore::isRefreshingChanged);
    if (workspaceChanged && self) emit workspaceIDChanged();
    emitIf(kConnectionIDChange, &AICloudStore::connectionIDChanged);
}

} // namespace tavelo
