#pragma once

#include "support/SecretStore.h"

#include <QString>

namespace tavelo {

// Secret Service items in one named collection (a "keyring" in GNOME's
// words), addressed by its D-Bus object path such as
// "/org/freedesktop/secrets/collection/tavelo". Items have the same
// attributes as those QtKeychain writes to the default collection, so the
// usual tools show them alike. Calls block while the Secret Service answers.
class SecretServiceCollectionStore final : public SecretStore {
public:
    // errSecNoSuchKeychain and errSecInteractionNotAllowed of the platform
    // keychain API, for a collection that is missing or locked.
    static constexpr std::int32_t kNoSuchCollection = -25294;
    static constexpr std::int32_t kCollectionLocked = -25308;

    explicit SecretServiceCollectionStore(QString collectionPath);

    const QString& collectionPath() const { return collectionPath_; }
    // 0 when the collection exists and is unlocked.
    std::int32_t open() const;

    QCoro::Task<SecretReadResult> read(QString service, QString account) override;
    QCoro::Task<std::int32_t> save(QString service, QString account, QByteArray data) override;
    QCoro::Task<std::int32_t> remove(QString service, QString account) override;

private:
    QString collectionPath_;
};

} // namespace tavelo
