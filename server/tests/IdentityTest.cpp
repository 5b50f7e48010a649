#include "Config.h"
#include "Crypto.h"
#include "Identity.h"
#include "Mailer.h"
#include "ServerProcess.h"
#include "SqliteStorage.h"

#include <gtest/gtest.h>

namespace tavelo::cloud {
namespace {

class IdentityTokens : public ::testing::Test {
protected:
    static std::unique_ptr<SqliteStorage> open(const std::string& path) {
        crypto::initialise();
        auto storage = std::make_unique<SqliteStorage>(path);
        storage->migrate();
        return storage;
    }
    testing::TemporaryDirectory directory;
    std::unique_ptr<SqliteStorage> storagePointer = open(directory.path() + "/identity.sqlite3");
    SqliteStorage& storage = *storagePointer;
    Mailer mailer{directory.path() + "/spool.txt"};
    Config config;
    double now = 1800000000;
    Identity identity{storage, mailer, config, [this] { return now; }};
    UserRecord user{"user-1", "a@example.jp", "", true, 0};
};

TEST_F(IdentityTokens, IdTokensExpireAfterAnHourAndCannotBeForged) {
    const std::string token = identity.issueIdToken(user, now);
    const auto principal = identity.authenticate("Bearer " + token);
    ASSERT_TRUE(principal);
    EXPECT_EQ(principal->userID, "user-1");
    EXPECT_FALSE(principal->owner);

    now += Identity::kIdTokenLifetime - 1;
    EXPECT_TRUE(identity.authenticate("Bearer " + token));
    now += 1;
    EXPECT_FALSE(identity.authenticate("Bearer " + token)); // expired

    now = 1800000000;
    // Another subject in the claims with the old signature.
    const auto dot1 = token.find('.'), dot2 = token.rfind('.');
    std::string claims;
    ASSERT_TRUE(crypto::base64UrlDecode(token.substr(dot1 + 1, dot2 - dot1 - 1), claims));
    const std::string swapped = claims.replace(claims.find("user-1"), 6, "owner!");
    const std::string tampered = token.substr(0, dot1 + 1) + crypto::base64UrlEncode(swapped) + token.substr(dot2);
    EXPECT_FALSE(identity.authenticate("Bearer " + tampered));
    // The same claims signed by another server's key.
    testing::TemporaryDirectory other;
    SqliteStorage otherStorage(other.path() + "/other.sqlite3");
    otherStorage.migrate();
    Identity stranger(otherStorage, mailer, config, [this] { return now; });
    EXPECT_FALSE(identity.authenticate("Bearer " + stranger.issueIdToken(user, now)));
    // An unsigned token.
    const std::string unsigned_ = crypto::base64UrlEncode(R"({"alg":"none"})") + "." + token.substr(dot1 + 1, dot2 - dot1 - 1) + ".";
    EXPECT_FALSE(identity.authenticate("Bearer " + unsigned_));
    EXPECT_FALSE(identity.authenticate("Bearer " + std::string(10000, 'a') + ".b.c"));
}

TEST_F(IdentityTokens, OnlyTheExactOwnerKeyOpensAndAReplacementRetiresIt) {
    const auto key = identity.ensureOwnerKey(false);
    ASSERT_TRUE(key);
    EXPECT_TRUE(identity.authenticate("Bearer " + *key).value().owner);
    EXPECT_FALSE(identity.authenticate("Bearer " + key->substr(1)));

    const auto replacement = identity.ensureOwnerKey(true);
    ASSERT_TRUE(replacement);
    EXPECT_FALSE(identity.authenticate("Bearer " + *key));
    EXPECT_TRUE(identity.authenticate("Bearer " + *replacement));
}

} // namespace
} // namespace tavelo::cloud
