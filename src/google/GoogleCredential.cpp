#include "google/GoogleCredential.h"

#include "google/GoogleLog.h"
#include "google/SecretServiceCollectionStore.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"
#include "support/SecretStore.h"

namespace tavelo {

Q_LOGGING_CATEGORY(googleSyncLog, "jp.tavelo.app.Sync")

void GoogleCredential::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "subject", subject);
    writeField(w, "email", email);
    writeField(w, "refreshToken", refreshToken);
    writeField(w, "accessToken", accessToken);
    w.key("expiry");
    w.number(expiry.referenceSeconds());
    writeField(w, "scopes", std::vector<QString>(scopes.begin(), scopes.end()));
    w.endObject();
}

GoogleCredential GoogleCredential::decode(const JsonValue& value) {
    const JsonObject o = value.object();
    GoogleCredential c;
    c.subject = required<QString>(o, "subject");
    c.email = required<QString>(o, "email");
    c.refreshToken = required<QString>(o, "refreshToken");
    c.accessToken = required<QString>(o, "accessToken");
    c.expiry = Date::fromReferenceSeconds(required<double>(o, "expiry"));
    const auto scopes = required<std::vector<QString>>(o, "scopes");
    c.scopes = QStringList(scopes.begin(), scopes.end());
    return c;
}

QByteArray GoogleCredential::toJson() const {
    std::string out;
    JsonWriter writer(out);
    encode(writer);
    return QByteArray::fromStdString(out);
}

GoogleCredential GoogleCredential::fromJson(const QByteArray& data) {
    JsonDocumentParser parser;
    return parser.decode<GoogleCredential>(std::string_view(data.constData(), data.size()));
}

QString KeychainGoogleCredentialStore::serviceName(const QString& workspaceID) {
    return QStringLiteral("jp.tavelo.app.google-oauth.") + workspaceID;
}

KeychainGoogleCredentialStore::KeychainGoogleCredentialStore(QString service, std::shared_ptr<SecretStore> secrets,
                                                             std::optional<QString> keychainPath)
    : service_(std::move(service)), secrets_(std::move(secrets)), keychainPath_(std::move(keychainPath)) {
    if (keychainPath_) collection_ = std::make_shared<SecretServiceCollectionStore>(*keychainPath_);
}

std::shared_ptr<SecretStore> KeychainGoogleCredentialStore::openedStore() const {
    if (!collection_) return secrets_;
    const std::int32_t status = collection_->open();
    if (status != SecretStatus::success) {
        qCWarning(googleSyncLog, "Keychain open failed: OSStatus %d", int(status));
        throw KeychainGoogleCredentialStoreError();
    }
    return collection_;
}

QCoro::Task<std::optional<GoogleCredential>> KeychainGoogleCredentialStore::load(QString subject) {
    auto secrets = openedStore();
    const SecretReadResult result = co_await secrets->read(service_, subject);
    if (result.status == SecretStatus::itemNotFound) co_return std::nullopt;
    if (result.status != SecretStatus::success) {
        qCWarning(googleSyncLog, "Keychain load failed: OSStatus %d", int(result.status));
        throw KeychainGoogleCredentialStoreError();
    }
    try {
        co_return GoogleCredential::fromJson(result.data);
    } catch (const JsonDecodingError&) {
        qCWarning(googleSyncLog, "Keychain credential decoding failed");
        throw KeychainGoogleCredentialStoreError();
    }
}

QCoro::Task<void> KeychainGoogleCredentialStore::save(GoogleCredential credential) {
    auto secrets = openedStore();
    const QByteArray data = credential.toJson();
    const std::int32_t status = co_await secrets->save(service_, credential.subject, data);
    if (status != SecretStatus::success) {
        qCWarning(googleSyncLog, "Keychain update failed: OSStatus %d", int(status));
        throw KeychainGoogleCredentialStoreError();
    }
}

QCoro::Task<void> KeychainGoogleCredentialStore::remove(QString subject) {
    auto secrets = openedStore();
    const std::int32_t status = co_await secrets->remove(service_, subject);
    if (status != SecretStatus::success && status != SecretStatus::itemNotFound) {
        qCWarning(googleSyncLog, "Keychain delete failed: OSStatus %d", int(status));
        throw KeychainGoogleCredentialStoreError();
    }
}

} // namespace tavelo
