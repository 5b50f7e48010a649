// The owner file of the server on this computer, and the one-click way in
// that uses it against a real server on 127.0.0.1.

#include "ai/CloudTestSupport.h"
#include "views/shell/LocalCloudServer.h"
#include "views/shell/LoginModel.h"
#include "views/shell/ShellWorkspace.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace tavelo;
using namespace tavelo::shell;
using namespace tavelo::testing;

namespace {

class OwnerFileTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    QString path() const { return dir.filePath("tavelo-cloud/owner.json"); }

    void write(const QByteArray& content, QFile::Permissions permissions = QFile::ReadOwner | QFile::WriteOwner) {
        QDir().mkpath(dir.filePath("tavelo-cloud"));
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(content);
        file.close();
        ASSERT_TRUE(file.setPermissions(permissions));
    }
};

} // namespace

TEST_F(OwnerFileTest, AGoodPrivateFileGivesTheEndpointAndKey) {
    write(R"({"endpoint": " http://127.0.0.1:47615 ", "connectionKey": "k-123"})");
    const auto reading = readLocalServerOwner(path());
    EXPECT_TRUE(reading.exists);
    EXPECT_FALSE(reading.problem);
    ASSERT_TRUE(reading.owner);
    EXPECT_EQ(reading.owner->endpoint, "http://127.0.0.1:47615");
    EXPECT_EQ(reading.owner->connectionKey, "k-123");
}

TEST_F(OwnerFileTest, AMissingFileIsNoServerAndNoProblem) {
    const auto reading = readLocalServerOwner(path());
    EXPECT_FALSE(reading.exists);
    EXPECT_FALSE(reading.owner);
    EXPECT_FALSE(reading.problem);
    LocalCloudServer server(path());
    EXPECT_FALSE(server.isAvailable());
}

TEST_F(OwnerFileTest, AFileOthersCanReadIsRefusedWithItsRemedy) {
    const QByteArray good = R"({"endpoint": "http://127.0.0.1:47615", "connectionKey": "k"})";
    for (auto permissions : {QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther,
                             QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup,
                             QFile::ReadOwner | QFile::WriteOwner | QFile::WriteGroup}) {
        write(good, permissions);
        const auto reading = readLocalServerOwner(path());
        EXPECT_TRUE(reading.exists);
        EXPECT_FALSE(reading.owner) << int(permissions);
        ASSERT_TRUE(reading.problem);
        EXPECT_TRUE(reading.problem->contains("chmod 600")) << reading.problem->toStdString();
    }
    // The button still shows, so that the user learns why it cannot work.
    LocalCloudServer server(path());
    EXPECT_TRUE(server.isAvailable());
    EXPECT_FALSE(server.problem().isEmpty());
}

TEST_F(OwnerFileTest, DamagedOrMisshapenFilesAreRefused) {
    const QByteArray cases[] = {
        "{\"endpoint\": \"http://127.0.0.1:47615\", ",                       // cut off
        "",                                                                  // empty
        R"(["http://127.0.0.1:47615", "k"])",                                // not an object
        R"({"endpoint": 47615, "connectionKey": "k"})",                     // number
        R"({"endpoint": "http://127.0.0.1:47615", "connectionKey": null})", // null
        R"({"endpoint": "http://127.0.0.1:47615"})",                        // key missing
        R"({"endpoint": "   ", "connectionKey": "k"})",                     // blank
        "\xff\xfe{}",                                                        // not UTF-8 JSON
    };
    for (const QByteArray& content : cases) {
        write(content);
        const auto reading = readLocalServerOwner(path());
        EXPECT_TRUE(reading.exists);
        EXPECT_FALSE(reading.owner) << content.constData();
        EXPECT_TRUE(reading.problem) << content.constData();
    }
}

// --- the one-click way in --------------------------------------------------------

class LocalServerLoginTest : public CloudStoreTest {
protected:
    QTemporaryDir config;
    QString ownerPath() const { return config.filePath("owner.json"); }
    void writeOwner(const QString& endpoint, QFile::Permissions permissions) {
        QFile file(ownerPath());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(QStringLiteral(R"({"endpoint":"%1","connectionKey":"%2"})").arg(endpoint, kOwnerKey).toUtf8());
        file.close();
        ASSERT_TRUE(file.setPermissions(permissions));
    }
};

TEST_F(LocalServerLoginTest, ConnectsWithTheOwnerKeyOfTheFile) {
    writeOwner(privateServer.baseUrl(), QFile::ReadOwner | QFile::WriteOwner);
    auto cloud = makeStore();
    LocalCloudServer server(ownerPath());
    LoginModel login;
    login.setCloudObject(cloud.get());
    login.setLocalServerObject(&server);
    int signedIn = 0;
    QObject::connect(&login, &LoginModel::signedIn, [&] { ++signedIn; });

    login.connectLocalServer();
    EXPECT_TRUE(login.isBusy());
    ASSERT_TRUE(test::waitUntil([&] { return !login.isBusy(); }));
    EXPECT_EQ(login.errorText(), "");
    EXPECT_EQ(signedIn, 1);
    EXPECT_TRUE(cloud->hasSession());
    EXPECT_EQ(cloud->endpoint(), privateServer.baseUrl());
    EXPECT_EQ(privateServer.last("GET", "/v1/session").header("authorization"), "Bearer " + kOwnerKey.toUtf8());
}

TEST_F(LocalServerLoginTest, AReadableFileIsNeverSent) {
    writeOwner(privateServer.baseUrl(), QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther);
    auto cloud = makeStore();
    LocalCloudServer server(ownerPath());
    LoginModel login;
    login.setCloudObject(cloud.get());
    login.setLocalServerObject(&server);

    login.connectLocalServer();
    EXPECT_FALSE(login.isBusy());
    EXPECT_TRUE(login.errorText().contains("chmod 600"));
    EXPECT_EQ(privateServer.requests().size(), 0u);
    EXPECT_FALSE(cloud->hasSession());
}

TEST_F(LocalServerLoginTest, TheServersRefusalIsShownAndABlankEmailIsAskedFor) {
    privateServer.route("GET", "/v1/session", CannedResponse::json(401, R"({"error":"接続キーが正しくありません。"})"));
    writeOwner(privateServer.baseUrl(), QFile::ReadOwner | QFile::WriteOwner);
    auto cloud = makeStore();
    LocalCloudServer server(ownerPath());
    LoginModel login;
    login.setCloudObject(cloud.get());
    login.setLocalServerObject(&server);

    login.connectLocalServer();
    ASSERT_TRUE(test::waitUntil([&] { return !login.isBusy(); }));
    EXPECT_EQ(login.errorText(), "接続キーが正しくありません。");

    login.signIn("  ", "secret");
    EXPECT_FALSE(login.isBusy());
    EXPECT_EQ(login.errorText(), "メールアドレスを入力してください。");
    EXPECT_EQ(identity.requests().size(), 0u);
}
