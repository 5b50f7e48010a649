// The desktop's AICloudStore against the real tavelo-cloud process over
// loopback: owner connection, session restore, schedules, hosted
// sign-up, sign-in and token refresh.

#include "ai/CloudTestSupport.h"
#include "ServerProcess.h"


#include <gtest/gtest.h>

#include <chrono>

namespace tavelo::testing {
namespace {

using cloud::testing::ServerProcess;

double wallSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class CloudServerIntegration : public ::testing::Test, protected CloudStoreParts {
protected:
    CloudServerIntegration() {
        pointHostedAccountAt(endpoint(), endpoint(), endpoint());
    }

    std::unique_ptr<AICloudStore> makeStore() {
        return storeWith([this] { return Date::fromUnixSeconds(wallSeconds() + clockOffset); }, instantSleep());
    }

    AISchedule schedule() const {
        return AISchedule{UUID::random(), QStringLiteral("朝のまとめ"), QStringLiteral("今日の予定をまとめて"),
                          Date::fromUnixSeconds(std::floor(wallSeconds()) + 86400), QStringLiteral("Asia/Tokyo"),
                          EventRecurrence::daily, false};
    }

    QString endpoint() const { return QString::fromStdString(server.endpoint()); }
    QString ownerKey() const { return QString::fromStdString(server.ownerKey()); }

    ServerProcess server;
    double clockOffset = 0;
};

TEST_F(CloudServerIntegration, OwnerConnectsSavesRestoresAndDeletes) {
    auto store = makeStore();
    syncWait(store->connectPrivateServer(endpoint(), ownerKey()));
    ASSERT_TRUE(store->session());

    const auto saved = schedule();
    syncWait(store->save(saved));
    ASSERT_EQ(store->state().schedules.size(), 1u);
    EXPECT_EQ(store->state().schedules[0], saved); // every field survives the round trip

    // A new start restores the session from the stored key.
    auto restored = makeStore();
    syncWait(restored->restoreSession());
    ASSERT_TRUE(restored->session());
    syncWait(restored->deleteSchedule(saved.id));
    EXPECT_TRUE(restored->state().schedules.empty());
}

TEST_F(CloudServerIntegration, HostedAccountSignsUpSignsInAndRefreshes) {
    auto store = makeStore();
    const QString email = QStringLiteral("hanako@example.jp");
    const QString password = QStringLiteral("correct horse");
    syncWait(store->registerAccount(email, password));
    EXPECT_FALSE(store->session()); // registering does not sign in
    syncWait(store->signIn(email, password));
    ASSERT_TRUE(store->session());

    const auto saved = schedule();
    syncWait(store->save(saved));
    EXPECT_EQ(store->state().schedules.size(), 1u) << server.log();

    // An hour later the ID token is stale: the stored refresh token gets a new one.
    clockOffset = 3600;
    syncWait(store->refresh());
    EXPECT_FALSE(store->errorMessage()) << store->errorMessage()->toStdString();
    EXPECT_EQ(store->state().schedules.size(), 1u);
}

} // namespace
} // namespace tavelo::testing
