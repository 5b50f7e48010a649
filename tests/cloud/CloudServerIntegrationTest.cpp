// The desktop's AICloudStore against the real tavelo-cloud process over
// loopback: owner connection, session restore, schedules, runs, the AI link,
// hosted sign-up, sign-in, token refresh and password reset, sign-out.

#include "ai/CloudTestSupport.h"
#include "ServerProcess.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <chrono>

namespace tavelo::testing {
namespace {

using cloud::testing::FakeProvider;
using cloud::testing::ServerProcess;

double wallSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class CloudServerIntegration : public ::testing::Test, protected CloudStoreParts {
protected:
    explicit CloudServerIntegration(std::vector<std::string> arguments = {"--log-level", "debug"}) : server(std::move(arguments)) {
        pointHostedAccountAt(endpoint(), endpoint(), endpoint());
    }

    std::unique_ptr<AICloudStore> makeStore() {
        return storeWith([this] { return Date::fromUnixSeconds(wallSeconds() + clockOffset); }, instantSleep());
    }

    AISchedule schedule(const QString& title = QStringLiteral("朝のまとめ")) const {
        return AISchedule{UUID::random(), title, QStringLiteral("今日の予定をまとめて"),
                          Date::fromUnixSeconds(std::floor(wallSeconds()) + 86400), QStringLiteral("Asia/Tokyo"),
                          EventRecurrence::daily, false};
    }

    QString endpoint() const { return QString::fromStdString(server.endpoint()); }
    QString ownerKey() const { return QString::fromStdString(server.ownerKey()); }

    ServerProcess server;
    double clockOffset = 0;
};

TEST_F(CloudServerIntegration, OwnerConnectsSavesRunsRestoresDeletesAndSignsOut) {
    auto store = makeStore();
    syncWait(store->connectPrivateServer(endpoint() + QStringLiteral("/ "), ownerKey()));
    ASSERT_TRUE(store->session());
    EXPECT_EQ(store->session()->kind, TaveloSession::Kind::owner);
    EXPECT_EQ(store->endpoint(), endpoint());

    const auto saved = schedule();
    syncWait(store->save(saved));
    ASSERT_EQ(store->state().schedules.size(), 1u);
    EXPECT_EQ(store->state().schedules[0], saved); // every field survives the round trip

    syncWait(store->runNow(saved.id));
    ASSERT_EQ(store->state().runs.size(), 1u);
    EXPECT_EQ(store->state().runs[0].scheduleID, saved.id);
    ASSERT_TRUE(store->latestRun(saved.id));

    // A new start restores the session from the stored key.
    auto restored = makeStore();
    syncWait(restored->restoreSession());
    ASSERT_TRUE(restored->session());
    EXPECT_EQ(restored->workspaceID(), store->workspaceID());
    syncWait(restored->refresh());
    EXPECT_EQ(restored->state().schedules.size(), 1u);

    syncWait(restored->deleteSchedule(saved.id));
    EXPECT_TRUE(restored->state().schedules.empty());

    syncWait(restored->signOut());
    EXPECT_FALSE(restored->session());
    EXPECT_FALSE(secrets->item(endpoint()));
}

TEST_F(CloudServerIntegration, RefusalsReachTheUserWithTheServersText) {
    auto store = makeStore();
    EXPECT_FALSE(messageOf(failureOf(store->connectPrivateServer(endpoint(), QString(40, QLatin1Char('x'))))).isEmpty());
    EXPECT_FALSE(store->session());

    syncWait(store->connectPrivateServer(endpoint(), ownerKey()));
    auto invalid = schedule(QStringLiteral("   "));
    const auto failure = failureOf(store->save(invalid));
    const auto error = cloudErrorOf(failure);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->message(), QStringLiteral("タイトルを入力してください"));
    EXPECT_EQ(error->httpStatus(), 400);

    // No provider configured: the AI link reads as not connected, and the
    // login explains why instead of waiting for a code.
    syncWait(store->refreshAccount());
    ASSERT_TRUE(store->account());
    EXPECT_FALSE(store->account()->connected);
    EXPECT_FALSE(messageOf(failureOf(store->login())).isEmpty());
}

TEST_F(CloudServerIntegration, HostedAccountSignsUpSignsInRefreshesAndResets) {
    auto store = makeStore();
    const QString email = QStringLiteral("hanako@example.jp");
    const QString password = QStringLiteral("correct horse");
    syncWait(store->registerAccount(email, password));
    syncWait(store->resendVerification(email, password));
    EXPECT_FALSE(store->session()); // neither signs in
    QFile spool(QString::fromStdString(server.mailSpool()));
    ASSERT_TRUE(spool.open(QIODevice::ReadOnly));
    EXPECT_EQ(spool.readAll().count("mode=verifyEmail"), 2);

    EXPECT_FALSE(messageOf(failureOf(store->signIn(email, QStringLiteral("wrong horse")))).isEmpty());
    syncWait(store->signIn(email, password));
    ASSERT_TRUE(store->session());
    EXPECT_EQ(store->session()->kind, TaveloSession::Kind::identity);
    EXPECT_EQ(store->taveloEmail(), email);

    const auto saved = schedule();
    syncWait(store->save(saved));
    EXPECT_EQ(store->state().schedules.size(), 1u) << server.log();

    // An hour later the ID token is stale: the stored refresh token gets a new one.
    clockOffset = 3600;
    syncWait(store->refresh());
    EXPECT_FALSE(store->errorMessage()) << store->errorMessage()->toStdString();
    EXPECT_EQ(store->state().schedules.size(), 1u);

    // A new start refreshes from the keychain too.
    auto restored = makeStore();
    syncWait(restored->restoreSession());
    ASSERT_TRUE(restored->session());
    EXPECT_EQ(restored->session()->kind, TaveloSession::Kind::identity);

    syncWait(store->resetPassword(email));
    spool.seek(0);
    EXPECT_TRUE(spool.readAll().contains("mode=resetPassword"));

}

class CloudServerWithProvider : public CloudServerIntegration {
protected:
    static std::vector<std::string> arguments(const FakeProvider& provider) {
        return {"--ai-base-url", provider.baseURL(), "--ai-model", "local-model", "--scheduler-interval", "0.1"};
    }
    CloudServerWithProvider() : CloudServerIntegration(arguments(provider)) {}
    static inline FakeProvider provider{[](const std::string&) { return FakeProvider::completion("要約です。"); }};
};

TEST_F(CloudServerWithProvider, RunNowEndsCompleteAndTheLinkCanBeSwitched) {
    auto store = makeStore();
    syncWait(store->connectPrivateServer(endpoint(), ownerKey()));
    const auto saved = schedule();
    syncWait(store->save(saved));
    syncWait(store->runNow(saved.id));
    ASSERT_TRUE(LocalHttpServer::waitUntil([&] {
        syncWait(store->refresh());
        return !store->state().runs.empty() && store->state().runs[0].status == QStringLiteral("complete");
    }, 10000));
    const AIRun run = store->state().runs[0];
    EXPECT_EQ(run.output, QStringLiteral("要約です。"));
    EXPECT_EQ(run.statusLabel(), QStringLiteral("完了"));
    EXPECT_TRUE(run.startedAt && run.endedAt);
    // The provider was asked with the configured model and the schedule's prompt.
    ASSERT_EQ(provider.requestCount(), 1);
    const QJsonObject sent = QJsonDocument::fromJson(QByteArray::fromStdString(provider.bodies().at(0))).object();
    EXPECT_EQ(sent["model"].toString(), QStringLiteral("local-model"));
    EXPECT_EQ(sent["messages"][0]["content"].toString(), saved.prompt);

    syncWait(store->refreshAccount());
    EXPECT_TRUE(store->isChatGPTConnected());
    EXPECT_EQ(store->account()->plan, QStringLiteral("local-model"));
    syncWait(store->logout());
    syncWait(store->refreshAccount());
    EXPECT_FALSE(store->isChatGPTConnected());
    // Logging in again switches the link back on and says so instead of giving a code.
    EXPECT_FALSE(messageOf(failureOf(store->login())).isEmpty());
    syncWait(store->refreshAccount());
    EXPECT_TRUE(store->isChatGPTConnected());
}

} // namespace
} // namespace tavelo::testing
