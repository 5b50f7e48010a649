#pragma once

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QString>

#include <cstdint>
#include <map>
#include <memory>
#include <utility>

namespace tavelo {

// Status codes of secret-store operations. The numbers are those of the
// platform keychain API the rest of the application was written against, so
// a status in a log means the same on every platform: 0 is success and
// -25300 "no such item".
namespace SecretStatus {
inline constexpr std::int32_t success = 0;
inline constexpr std::int32_t itemNotFound = -25300;
inline constexpr std::int32_t authFailed = -25293;
inline constexpr std::int32_t notAvailable = -25291;
inline constexpr std::int32_t internalFailure = -26276;
} // namespace SecretStatus

struct SecretReadResult {
    std::int32_t status = SecretStatus::success;
    // The stored bytes; meaningful only with status success.
    QByteArray data;
};

// One generic-password item per service and account. Operations report a
// status instead of throwing, so that callers can tell "not there" from "the
// store refused".
class SecretStore {
public:
    virtual ~SecretStore() = default;

    virtual QCoro::Task<SecretReadResult> read(QString service, QString account) = 0;
    // Replaces the item's data, or adds the item when there is none.
    virtual QCoro::Task<std::int32_t> save(QString service, QString account, QByteArray data) = 0;
    virtual QCoro::Task<std::int32_t> remove(QString service, QString account) = 0;
};

// The Secret Service of the desktop session (GNOME Keyring, KWallet, ...)
// through QtKeychain. Never falls back to an unencrypted file.
class KeychainSecretStore final : public SecretStore {
public:
    QCoro::Task<SecretReadResult> read(QString service, QString account) override;
    QCoro::Task<std::int32_t> save(QString service, QString account, QByteArray data) override;
    QCoro::Task<std::int32_t> remove(QString service, QString account) override;
};

} // namespace tavelo
