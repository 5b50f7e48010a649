// The owner file of the server on this computer, and the one-click way in
// that uses it against a real server on 127.0.0.1.

#include "ai/CloudTestSupport.h"
#include "views/shell/LocalCloudServer.h"
#include "views/shell/LoginModel.h"
#include "support/TestWait.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace tavelo;
using namespace tavelo::shell;
using namespace tavelo::testing;

namespace {

constexpr QFile::Permissions kPrivate = QFile::ReadOwner | QFile::WriteOwner;

class LocalCloudServerTest : public CloudStoreTest {
protected:
    QTemporaryDir config;
    std::unique_ptr<AICloudStore> cloud;
    std::unique_ptr<LocalCloudServer> server;
    LoginModel login;

    QString ownerPath() const { return config.filePath("tavelo-cloud/owner.json"); }
    void writeOwner(const QByteArray& content, QFile::Permissions permissions = kPrivate) {
        QDir().mkpath(config.filePath("tavelo-cloud"));
        QFile file(ownerPath());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(content);
        file.close();
        ASSERT_TRUE(file.setPermissions(permissions));
    }
    // The owner file of the private server, with the owner's key.
    void writeServerOwner(QFile::Permissions permissions = kPrivate) {
        writeOwner(QStringLiteral(R"({"endpoint":"%1","connectionKey":"%2"})").arg(privateServer.baseUrl(), kOwnerKey).toUtf8(),
                   permissions);
    }
    // The login form over a new cloud store and the server of the owner file.
    void openLogin() {
        cloud = makeStore();
        server = std::make_unique<LocalCloudServer>(ownerPath());
        login.setCloudObject(cloud.get());
        login.setLocalServerObject(server.get());
    }
};

} // namespace

TEST_F(LocalCloudServerTest, OnlyAPrivateOwnerFileGivesTheEndpointAndKey) {
    // No file: no server, and no problem either.
    auto reading = readLocalServerOwner(ownerPath());
    EXPECT_FALSE(reading.exists || reading.owner || reading.problem);
    EXPECT_FALSE(LocalCloudServer(ownerPath()).isAvailable());

    writeOwner(R"({"endpoint": " http://127.0.0.1:47615 ", "connectionKey": "k-123"})");
    reading = readLocalServerOwner(ownerPath());
    EXPECT_TRUE(reading.exists);
    EXPECT_FALSE(reading.problem);
    ASSERT_TRUE(reading.owner);
    EXPECT_EQ(reading.owner->endpoint, "http://127.0.0.1:47615");
    EXPECT_EQ(reading.owner->connectionKey, "k-123");

    for (auto permissions : {kPrivate | QFile::ReadOther, kPrivate | QFile::ReadGroup, kPrivate | QFile::WriteGroup}) {
        writeOwner(R"({"endpoint": "http://127.0.0.1:47615", "connectionKey": "k"})", permissions);
        reading = readLocalServerOwner(ownerPath());
        EXPECT_TRUE(reading.exists);
        EXPECT_FALSE(reading.owner) << int(permissions);
        ASSERT_TRUE(reading.problem);
        EXPECT_TRUE(reading.problem->contains("chmod 600")) << reading.problem->toStdString();
    }
}

TEST_F(LocalCloudServerTest, DamagedOrMisshapenOwnerFilesAreRefused) {
    const QByteArray cases[] = {
        "{\"endpoint\": \"http://127.0.0.1:47615\", ",                       // cut off
        R"(["http://127.0.0.1:47615", "k"])",                                // not an object
        R"({"endpoint": 47615, "connectionKey": "k"})",                     // number
        R"({"endpoint": "http://127.0.0.1:47615"})",                        // key missing
        R"({"endpoint": "   ", "connectionKey": "k"})",                     // blank
    };
    for (const QByteArray& content : cases) {
        writeOwner(content);
        const auto reading = readLocalServerOwner(ownerPath());
        EXPECT_TRUE(reading.exists);
        EXPECT_FALSE(reading.owner) << content.constData();
        EXPECT_TRUE(reading.problem) << content.constData();
    }
}

TEST_F(LocalCloudServerTest, ConnectsWithTheOwnerKeyOfTheFile) {
    writeServerOwner();
    openLogin();
    int signedIn = 0;
    QObject::connect(&login, &LoginModel::signedIn, [&] { ++signedIn; });

    login.connectLocalServer();
    ASSERT_TRUE(waitUntil([&] { return !login.isBusy(); }));
    EXPECT_EQ(signedIn, 1);
    EXPECT_TRUE(cloud->hasSession());
    EXPECT_EQ(cloud->endpoint(), privateServer.baseUrl());
    EXPECT_EQ(privateServer.last("GET", "/v1/session").header("authorization"), "Bearer " + kOwnerKey.toUtf8());
}

TEST_F(LocalCloudServerTest, AReadableOwnerFileIsNeverSent) {
    writeServerOwner(kPrivate | QFile::ReadOther);
    openLogin();
    login.connectLocalServer();
    EXPECT_FALSE(login.isBusy());
    EXPECT_TRUE(login.errorText().contains("chmod 600"));
    EXPECT_EQ(privateServer.requests().size(), 0u);
    EXPECT_FALSE(cloud->hasSession());
}

TEST_F(LocalCloudServerTest, TheServersRefusalIsShown) {
    privateServer.route("GET", "/v1/session", CannedResponse::json(401, R"({"error":"接続キーが正しくありません。"})"));
    writeServerOwner();
    openLogin();
    login.connectLocalServer();
    ASSERT_TRUE(waitUntil([&] { return !login.isBusy(); }));
    EXPECT_EQ(login.errorText(), "接続キーが正しくありません。");
}
