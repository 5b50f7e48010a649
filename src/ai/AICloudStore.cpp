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

Q_LOGGING_CATEGORY(lcAICloud, "tavelo.aicloud")

using namespace aicloud;

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


} // namespace tavelo
