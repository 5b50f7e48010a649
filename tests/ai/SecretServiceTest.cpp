// Integration with a real Secret Service. Runs under
// scripts/with-secret-service, which starts a private D-Bus session with an
// unlocked GNOME Keyring in a throw-away home.

#include "CloudTestSupport.h"

#include "support/SecretStore.h"

using namespace tavelo;
using namespace tavelo::testing;

namespace {

const QString kService = QString::fromLatin1(AICloudStore::kKeychainService);

} // namespace

TEST(SecretServiceTest, ItemsAreSavedReplacedReadAndRemoved) {
    KeychainSecretStore store;
    const QString account = "https://private.example.jp/" + UUID::random().toString();

    EXPECT_EQ(syncWait(store.read(kService, account)).status, SecretStatus::itemNotFound);
    EXPECT_EQ(syncWait(store.save(kService, account, "first key")), SecretStatus::success);
    const QByteArray secondKey = QString("二番目の鍵-0123456789").toUtf8();
    EXPECT_EQ(syncWait(store.save(kService, account, secondKey)), SecretStatus::success);
    const auto read = syncWait(store.read(kService, account));
    EXPECT_EQ(read.status, SecretStatus::success);
    EXPECT_EQ(read.data, secondKey);

    // Items are per service and account.
    EXPECT_EQ(syncWait(store.read("jp.tavelo.app.other", account)).status, SecretStatus::itemNotFound);
    EXPECT_EQ(syncWait(store.read(kService, "identity:" + account)).status, SecretStatus::itemNotFound);
    const QByteArray binary("\x00\xff\xc3\x28", 4);
    EXPECT_EQ(syncWait(store.save(kService, "identity:" + account, binary)), SecretStatus::success);
    EXPECT_EQ(syncWait(store.read(kService, "identity:" + account)).data, binary);
    EXPECT_EQ(syncWait(store.read(kService, account)).data, secondKey);

    EXPECT_EQ(syncWait(store.remove(kService, account)), SecretStatus::success);
    EXPECT_EQ(syncWait(store.read(kService, account)).status, SecretStatus::itemNotFound);
    EXPECT_EQ(syncWait(store.read(kService, "identity:" + account)).data, binary);
    syncWait(store.remove(kService, "identity:" + account));
}

// The private-server key lives in the Secret Service between runs: a
// restart finds it there, and signing out removes it.
TEST_F(CloudStoreTest, ConnectionKeySurvivesARestartInTheSecretService) {
    auto keychain = std::make_shared<KeychainSecretStore>();
    auto make = [&] {
        AICloudStore::Dependencies deps;
        deps.defaults = defaults;
        deps.secrets = keychain;
        deps.transport = transport;
        deps.cacheDirectory = directory.filePath("cache");
        return std::make_unique<AICloudStore>(std::move(deps));
    };
    const QString endpoint = privateServer.baseUrl();
    syncWait(make()->connect(endpoint, kOwnerKey));
    EXPECT_EQ(syncWait(keychain->read(kService, endpoint)).data, kOwnerKey.toUtf8());

    auto restarted = make();
    syncWait(restarted->restoreSession());
    ASSERT_TRUE(restarted->session()) << restarted->errorMessageText().toStdString();
    EXPECT_EQ(privateServer.last("GET", "/v1/session").header("authorization"), "Bearer " + kOwnerKey.toUtf8());

    syncWait(restarted->disconnect());
    EXPECT_EQ(syncWait(keychain->read(kService, endpoint)).status, SecretStatus::itemNotFound);
}
