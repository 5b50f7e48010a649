#include "ai/CloudTestSupport.h"
#include "app/TaveloApp.h"
#include "google/GoogleOAuthConfiguration.h"
#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace tavelo;
using namespace tavelo::testing;

namespace {

class TaveloAppTest : public CloudStoreTest {
protected:
    std::unique_ptr<TaveloApp> app;

    QString root() const { return directory.filePath(QStringLiteral("root")); }
    void start(GoogleServicesFactory google = {}) {
        app = std::make_unique<TaveloApp>(root(), makeStore(), std::move(google));
        syncWait(app->start());
    }
    void signIn() { syncWait(app->aiCloud().connectPrivateServer(privateServer.baseUrl(), kOwnerKey)); }
    void signOut() { syncWait(app->aiCloud().signOut()); }
    void writeOAuthFile(const QString& path, const QByteArray& content) {
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(content);
    }
};

} // namespace

// Signing in builds the workspace over its own directory; while the account
// stays, the bundle stays; a new connection gets a fresh bundle over the same
// data.
TEST_F(TaveloAppTest, EachConnectionGetsItsOwnBundleOverTheAccountsDirectory) {
    start();
    EXPECT_EQ(app->currentWorkspace(), nullptr);
    EXPECT_FALSE(QDir(root()).exists(QStringLiteral("users")));

    signIn();
    const auto first = app->currentWorkspace();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->id(), app->aiCloud().workspaceID());
    EXPECT_EQ(first->connectionID(), app->aiCloud().connectionID());
    EXPECT_EQ(first->directory(), QDir(root()).filePath(QStringLiteral("users/") + first->id()));
    EXPECT_EQ(first->statePath(), QDir(first->directory()).filePath(QStringLiteral("state.json")));
    app->updateWorkspace();
    EXPECT_EQ(app->currentWorkspace(), first);

    syncWait(first->store().load());
    ASSERT_TRUE(syncWait(first->store().setPastSearchResultsIncluded(true)));
    EXPECT_TRUE(QFile::exists(first->statePath()));

    signOut();
    EXPECT_EQ(app->currentWorkspace(), nullptr);

    signIn();
    const auto second = app->currentWorkspace();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->id(), first->id());
    EXPECT_NE(second->connectionID(), first->connectionID());
    syncWait(second->store().load());
    EXPECT_TRUE(second->store().preferences().includePastSearchResults);
}

// The root hears of a new connection through a signal; until it has, and
// even if it never does, the old bundle must not be handed out, and the next
// update must build a new one although the workspace id is the same.
TEST_F(TaveloAppTest, AStaleConnectionNeverYieldsTheWorkspace) {
    start();
    signIn();
    const auto first = app->currentWorkspace();
    ASSERT_NE(first, nullptr);

    app->aiCloud().blockSignals(true);
    signOut();
    EXPECT_EQ(app->currentWorkspace(), nullptr) << "nobody is signed in";
    signIn();
    ASSERT_EQ(app->aiCloud().workspaceID(), first->id());
    ASSERT_NE(app->aiCloud().connectionID(), first->connectionID());
    EXPECT_EQ(app->currentWorkspace(), nullptr) << "same account, stale connection";
    app->aiCloud().blockSignals(false);

    app->updateWorkspace();
    const auto second = app->currentWorkspace();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->connectionID(), app->aiCloud().connectionID());
}

TEST_F(TaveloAppTest, TheOAuthFileDecidesWhetherGoogleServicesAreBuilt) {
    int factoryCalls = 0;
    std::optional<GoogleOAuthConfiguration> seen;
    start([&](const GoogleOAuthConfiguration& configuration, std::shared_ptr<LocalCalendarService> local,
              const QString&) -> std::optional<TaveloGoogleServices> {
        ++factoryCalls;
        seen = configuration;
        return TaveloGoogleServices{local, nullptr};
    });
    signIn();
    ASSERT_NE(app->currentWorkspace(), nullptr);
    EXPECT_EQ(factoryCalls, 0); // no file yet
    const QString oauthPath = app->currentWorkspace()->googleOAuthConfigurationPath();
    EXPECT_EQ(oauthPath, QDir(app->currentWorkspace()->directory()).filePath(QStringLiteral("google-oauth.json")));

    // A valid file is read when the next workspace is built.
    writeOAuthFile(oauthPath, R"({"client_id":"1-x.apps.googleusercontent.com","client_secret":"s"})");
    signOut();
    signIn();
    ASSERT_NE(app->currentWorkspace(), nullptr);
    EXPECT_EQ(factoryCalls, 1);
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->clientID, QStringLiteral("1-x.apps.googleusercontent.com"));

    // A damaged file is not an error: the workspace runs on the local store.
    writeOAuthFile(oauthPath, "{\"client_id\":");
    signOut();
    signIn();
    ASSERT_NE(app->currentWorkspace(), nullptr);
    EXPECT_EQ(factoryCalls, 1);
    EXPECT_FALSE(app->currentWorkspace()->hasGoogleServices());
}
