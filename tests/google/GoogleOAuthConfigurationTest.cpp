#include "google/GoogleOAuthConfiguration.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace tavelo;

namespace {

class GoogleOAuthConfigurationTest : public ::testing::Test {
protected:
    QString write(const QByteArray& content) {
        const QString path = dir.filePath(QStringLiteral("google-oauth.json"));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(content);
        return path;
    }
    QTemporaryDir dir;
};

} // namespace

TEST_F(GoogleOAuthConfigurationTest, LoadsTheTwoKeysExactlyAsWritten) {
    const auto config = GoogleOAuthConfiguration::load(
        write(R"({"client_secret":"s3cret","client_id":"123-abc.apps.googleusercontent.com"})"));
    EXPECT_EQ(config.clientID, QStringLiteral("123-abc.apps.googleusercontent.com"));
    EXPECT_EQ(config.clientSecret, QStringLiteral("s3cret"));
}

TEST_F(GoogleOAuthConfigurationTest, EveryFaultIsTheSameInvalidConfiguration) {
    const QByteArray rejected[] = {
        "",
        "not json",
        R"({"client_id":"123.apps.googleusercontent.com"})",
        R"({"installed":{"client_id":"123.apps.googleusercontent.com","client_secret":"s"}})",
        R"({"client_id":"123.apps.example.com","client_secret":"s"})",
        R"({"client_id":" 123.apps.googleusercontent.com","client_secret":"s"})",
        R"({"client_id":"123.apps.googleusercontent.com","client_secret":""})",
    };
    for (const auto& content : rejected)
        EXPECT_THROW(GoogleOAuthConfiguration::load(write(content)), GoogleOAuthConfigurationError) << content.constData();
    EXPECT_THROW(GoogleOAuthConfiguration::load(dir.filePath(QStringLiteral("missing.json"))), GoogleOAuthConfigurationError);
}
