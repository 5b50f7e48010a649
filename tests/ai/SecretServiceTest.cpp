// Integration with a real Secret Service. Runs under
// scripts/with-secret-service, which starts a private D-Bus session with an
// unlocked GNOME Keyring in a throw-away home.

#include "CloudTestSupport.h"

using namespace tavelo;
using namespace tavelo::testing;

TEST(SecretServiceTest, ItemsAreSavedReplacedReadAndRemovedPerServiceAndAccount) {
    KeychainSecretStore store;
    const QString service = AICloudStore::kKeychainService;
    const QString account = "https://private.example.jp/" + UUID::random().toString(), other = "identity:" + account;
    const QByteArray key = QString("二番目の鍵-0123456789").toUtf8(), binary("\x00\xff\xc3\x28", 4);
    auto read = [&](const QString& s, const QString& a) { return syncWait(store.read(s, a)); };

    EXPECT_EQ(read(service, account).status, SecretStatus::itemNotFound);
    for (const auto& [name, data] : {std::pair(account, QByteArray("first")), std::pair(account, key), std::pair(other, binary)})
        EXPECT_EQ(syncWait(store.save(service, name, data)), SecretStatus::success);
    EXPECT_EQ(read(service, account).status, SecretStatus::success);
    EXPECT_EQ(read(service, account).data, key);
    EXPECT_EQ(read("jp.tavelo.app.other", account).status, SecretStatus::itemNotFound);
    EXPECT_EQ(syncWait(store.remove(service, account)), SecretStatus::success);
    EXPECT_EQ(read(service, account).status, SecretStatus::itemNotFound);
    EXPECT_EQ(read(service, other).data, binary);
    syncWait(store.remove(service, other));
}
