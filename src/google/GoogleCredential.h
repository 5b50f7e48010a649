#pragma once

#include "support/Date.h"
#include "support/Error.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <QStringList>

#include <memory>
#include <optional>
#include <string>

namespace tavelo {

class JsonValue;
class JsonWriter;
class SecretStore;

// The one secret of a connected Google account. Stored only in the Secret
// Service, never in the data folder. JSON keys follow the field order;
// `expiry` is a number of seconds since 2001-01-01T00:00:00Z.
struct GoogleCredential {
    QString subject;
    QString email;
    QString refreshToken;
    QString accessToken;
    Date expiry;
    QStringList scopes;

    void encode(JsonWriter& writer) const;
    static GoogleCredential decode(const JsonValue& value);
    QByteArray toJson() const;
    // Throws JsonDecodingError.
    static GoogleCredential fromJson(const QByteArray& data);

    bool operator==(const GoogleCredential&) const = default;
};

class KeychainGoogleCredentialStoreError final : public Error {
public:
    enum class Kind { operationFailed };
    Kind kind() const { return Kind::operationFailed; }
    std::optional<QString> errorDescription() const override {
        return QStringLiteral("Google credential storage is unavailable.");
    }
    const char* domain() const override { return "KeychainGoogleCredentialStoreError"; }
};

// One credential per Google account, keyed by its subject.
class GoogleCredentialStore {
public:
    virtual ~GoogleCredentialStore() = default;
    // Nothing when no credential is stored; a damaged item is a failure.
    virtual QCoro::Task<std::optional<GoogleCredential>> load(QString subject) = 0;
    // Replaces any item of the same subject.
    virtual QCoro::Task<void> save(GoogleCredential credential) = 0;
    // Removing what is not there succeeds.
    virtual QCoro::Task<void> remove(QString subject) = 0;
};

class SecretServiceCollectionStore;

// Credentials as Secret Service items: service "jp.tavelo.app.google-oauth."
// plus the workspace id, account = the subject. Without a keychain path the
// items live in the default collection (through `secrets`); with one they
// live in that collection only, which must exist and be unlocked.
class KeychainGoogleCredentialStore final : public GoogleCredentialStore {
public:
    static QString serviceName(const QString& workspaceID);

    KeychainGoogleCredentialStore(QString service, std::shared_ptr<SecretStore> secrets,
                                  std::optional<QString> keychainPath = std::nullopt);

    const QString& service() const { return service_; }
    const std::optional<QString>& keychainPath() const { return keychainPath_; }

    QCoro::Task<std::optional<GoogleCredential>> load(QString subject) override;
    QCoro::Task<void> save(GoogleCredential credential) override;
    QCoro::Task<void> remove(QString subject) override;

private:
    // The store to use, after opening the chosen collection.
    std::shared_ptr<SecretStore> openedStore() const;

    QString service_;
    std::shared_ptr<SecretStore> secrets_;
    std::optional<QString> keychainPath_;
    std::shared_ptr<SecretServiceCollectionStore> collection_;
};

} // namespace tavelo
