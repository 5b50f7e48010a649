#include "ServerProcess.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <regex>
#include <thread>

namespace tavelo::cloud {
namespace {

using testing::jsonObject;
using testing::readFile;
using testing::ServerProcess;

std::string field(const std::string& text, const char* key) {
    const auto o = jsonObject(text);
    const auto* v = o.if_contains(key);
    return v && v->is_string() ? std::string(v->as_string()) : std::string();
}

std::string identityMessage(const std::string& text) {
    const auto o = jsonObject(text);
    const auto* error = o.if_contains("error");
    if (!error || !error->is_object()) return {};
    return std::string(error->as_object().at("message").as_string());
}

std::string scheduleJSON(const std::string& id, const std::string& title = "Daily digest", double firstRun = 1767225600) {
    boost::json::object o{{"id", id}, {"title", title}, {"prompt", "Summarise"}, {"firstRun", firstRun},
                          {"timeZoneID", "Asia/Tokyo"}, {"recurrence", "daily"}, {"isPaused", false}};
    return boost::json::serialize(o);
}

constexpr const char* kScheduleA = "6F1E2B3C-0000-4000-8000-0000000000AA";
const std::string kStoredA = "6f1e2b3c-0000-4000-8000-0000000000aa"; // as the server keeps it

class OwnerRoutes : public ::testing::Test {
protected:
    ServerProcess server;
    std::string key = server.ownerKey();
};

TEST_F(OwnerRoutes, OwnerFileIsPrivateAndTheKeyOpensAnOwnerSession) {
    struct stat info {};
    ASSERT_EQ(::stat(server.ownerFile().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(readFile(server.ownerFile()), "{\"endpoint\": \"" + server.endpoint() + "\", \"connectionKey\": \"" + key + "\"}\n");
    EXPECT_GE(key.size(), 32u);

    const auto session = server.get("/v1/session", key);
    ASSERT_EQ(session.status, 200) << session.body;
    EXPECT_EQ(field(session.body, "kind"), "owner");
    EXPECT_EQ(field(session.body, "userID"), "owner");

    // The key is stored hashed: the database file does not contain it.
    EXPECT_EQ(readFile(server.home() + "/data/tavelo-cloud/tavelo-cloud.sqlite3").find(key), std::string::npos);

    // A restart keeps the key and does not write the file again.
    EXPECT_EQ(server.stop(), 0);
    server.start();
    EXPECT_EQ(server.ownerKey(), key);
    EXPECT_EQ(server.get("/v1/session", key).status, 200);
}

TEST_F(OwnerRoutes, MissingOrWrongCredentialsGetAJSONError) {
    for (const std::string& token : {std::string(), key + "x", std::string("a.b.c")}) {
        const auto reply = server.get("/v1/state", token);
        EXPECT_EQ(reply.status, 401) << token;
        EXPECT_FALSE(field(reply.body, "error").empty());
    }
    const auto basic = testing::httpRequest(server.port(), "GET", "/v1/session", {}, {{"Authorization", "Basic " + key}});
    EXPECT_EQ(basic.status, 401);
}

TEST_F(OwnerRoutes, SchedulesAreSavedValidatedListedAndDeleted) {
    const auto saved = server.send("PUT", "/v1/schedules", scheduleJSON(kScheduleA), key);
    ASSERT_EQ(saved.status, 200) << saved.body;

    const auto blank = server.send("PUT", "/v1/schedules", scheduleJSON(kScheduleA, "  "), key);
    EXPECT_EQ(blank.status, 400);
    auto state = jsonObject(server.get("/v1/state", key).body);
    ASSERT_EQ(state["schedules"].as_array().size(), 1u);
    EXPECT_EQ(state["schedules"].as_array()[0].as_object()["title"].as_string(), "Daily digest");

    const auto run = server.send("POST", "/v1/run", R"({"scheduleID":")" + kStoredA + R"("})", key);
    ASSERT_EQ(run.status, 200) << run.body;
    EXPECT_EQ(field(run.body, "status"), "queued");

    EXPECT_EQ(server.send("DELETE", "/v1/schedules/..%2F..%2Fetc%2Fpasswd", {}, key).status, 400);
    EXPECT_EQ(server.send("DELETE", "/v1/schedules/../../etc/passwd", {}, key).status, 404);
    EXPECT_EQ(server.send("DELETE", "/v1/schedules/" + kStoredA, {}, key).status, 200);
    state = jsonObject(server.get("/v1/state", key).body);
    EXPECT_TRUE(state["schedules"].as_array().empty());
}

// A stop waits for the request in flight.
TEST_F(OwnerRoutes, ShutdownLetsARequestInFlightFinishAndExitsCleanly) {
    const std::string body = scheduleJSON(kScheduleA, "Sent while stopping");
    const int fd = testing::connectTo(server.port());
    const std::string head = "PUT /v1/schedules HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + key +
                             "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body.substr(0, 10);
    ASSERT_EQ(::send(fd, head.data(), head.size(), 0), static_cast<ssize_t>(head.size()));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    server.signal(SIGTERM);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const std::string rest = body.substr(10);
    ASSERT_EQ(::send(fd, rest.data(), rest.size(), 0), static_cast<ssize_t>(rest.size()));
    const std::string reply = testing::readMessage(fd, 10000);
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 200")) << reply;
    EXPECT_EQ(server.wait(), 0);
    ::close(fd);
    server.start();
    EXPECT_NE(server.get("/v1/state", key).body.find("Sent while stopping"), std::string::npos);
}

class IdentityRoutes : public ::testing::Test {
protected:
    testing::HttpResult identity(const std::string& route, const std::string& body, const std::string& key = {}) const {
        return server.send("POST", "/v1/" + route + "?key=" + (key.empty() ? apiKey : key), body);
    }
    static std::string credentials(const std::string& email, const std::string& password) {
        return boost::json::serialize(boost::json::object{{"email", email}, {"password", password}, {"returnSecureToken", true}});
    }
    std::string signUp(const std::string& email, const std::string& password = "correct horse") const {
        return identity("accounts:signUp", credentials(email, password)).body;
    }
    testing::HttpResult signIn(const std::string& email, const std::string& password) const {
        return identity("accounts:signInWithPassword", credentials(email, password));
    }
    testing::HttpResult refresh(const std::string& token) const {
        boost::json::object body{{"grant_type", "refresh_token"}, {"refresh_token", token}};
        return identity("token", boost::json::serialize(body));
    }
    std::string spool() const { return readFile(server.mailSpool()); }

    ServerProcess server{{"--refresh-grace", "1"}};
    std::string apiKey = field(server.get("/v1/config").body, "apiKey");
};

TEST_F(IdentityRoutes, SignUpSignInAndTheSessionOfEachAccountIsItsOwn) {
    ASSERT_FALSE(apiKey.empty());
    const auto created = signUp("Alice@Example.jp");
    const std::string aliceToken = field(created, "idToken");
    ASSERT_FALSE(aliceToken.empty()) << created;
    EXPECT_EQ(identityMessage(signUp("alice@example.jp")), "EMAIL_EXISTS");
    EXPECT_TRUE(identityMessage(signUp("b@example.jp", "12345")).starts_with("WEAK_PASSWORD"));

    const auto session = jsonObject(server.get("/v1/session", aliceToken).body);
    EXPECT_NE(session.at("userID").as_string(), "owner");

    const std::string bobToken = field(signUp("bob@example.jp"), "idToken");
    ASSERT_EQ(server.send("PUT", "/v1/schedules", scheduleJSON(kScheduleA, "Alice's"), aliceToken).status, 200);
    EXPECT_TRUE(jsonObject(server.get("/v1/state", bobToken).body)["schedules"].as_array().empty());
    EXPECT_EQ(server.send("DELETE", "/v1/schedules/" + kStoredA, {}, bobToken).status, 404);
    EXPECT_EQ(server.send("POST", "/v1/run", R"({"scheduleID":")" + kStoredA + R"("})", bobToken).status, 404);
    // Bob's schedule with the same id is his own.
    ASSERT_EQ(server.send("PUT", "/v1/schedules", scheduleJSON(kScheduleA, "Bob's"), bobToken).status, 200);
    auto alices = jsonObject(server.get("/v1/state", aliceToken).body)["schedules"].as_array();
    ASSERT_EQ(alices.size(), 1u);
    EXPECT_EQ(alices[0].as_object()["title"].as_string(), "Alice's");
    EXPECT_TRUE(jsonObject(server.get("/v1/state", server.ownerKey()).body)["schedules"].as_array().empty());

    const auto good = signIn("ALICE@example.jp", "correct horse");
    EXPECT_EQ(good.status, 200);
    // A wrong password and an unknown address look the same.
    const auto wrong = signIn("alice@example.jp", "wrong horse");
    const auto unknown = signIn("nobody@example.jp", "wrong horse");
    EXPECT_EQ(wrong.status, 400);
    EXPECT_EQ(wrong.body, unknown.body);
    EXPECT_EQ(identityMessage(wrong.body), "INVALID_LOGIN_CREDENTIALS");
}

TEST_F(IdentityRoutes, RefreshRotatesWithAGracePeriodAndAReplayRevokesTheFamily) {
    const std::string first = field(signUp("carol@example.jp"), "refreshToken");
    ASSERT_FALSE(first.empty());
    // Two refreshes with the same token at the same moment both succeed.
    auto a = std::async(std::launch::async, [&] { return refresh(first); });
    auto b = std::async(std::launch::async, [&] { return refresh(first); });
    const auto ra = a.get(), rb = b.get();
    ASSERT_EQ(ra.status, 200) << ra.body;
    ASSERT_EQ(rb.status, 200) << rb.body;
    const std::string second = field(ra.body, "refresh_token");
    EXPECT_NE(second, first);
    EXPECT_EQ(server.get("/v1/session", field(ra.body, "id_token")).status, 200);

    std::this_thread::sleep_for(std::chrono::milliseconds(1300)); // past the one-second grace
    EXPECT_EQ(identityMessage(refresh(first).body), "INVALID_REFRESH_TOKEN");
    // The replay took the whole family down, the newer tokens too.
    EXPECT_EQ(identityMessage(refresh(second).body), "INVALID_REFRESH_TOKEN");
}

TEST_F(IdentityRoutes, ResetMailsCarryWorkingOneTimeCodes) {
    signUp("dave@example.jp");
    // No account enumeration: an unknown address is answered the same way.
    EXPECT_EQ(identity("accounts:sendOobCode", R"({"requestType":"PASSWORD_RESET","email":"ghost@example.jp"})").status, 200);
    EXPECT_EQ(spool().find("ghost@example.jp"), std::string::npos);

    ASSERT_EQ(identity("accounts:sendOobCode", R"({"requestType":"PASSWORD_RESET","email":"dave@example.jp"})").status, 200);
    std::smatch match;
    const std::string mail = spool();
    ASSERT_TRUE(std::regex_search(mail, match, std::regex("mode=resetPassword&oobCode=([A-Za-z0-9_-]+)")));
    const std::string code = match[1].str();
    boost::json::object reset{{"oobCode", code}, {"newPassword", "battery staple"}};
    EXPECT_EQ(identity("accounts:resetPassword", boost::json::serialize(reset)).status, 200);
    EXPECT_EQ(identityMessage(identity("accounts:resetPassword", boost::json::serialize(reset)).body), "INVALID_OOB_CODE");
    EXPECT_EQ(signIn("dave@example.jp", "correct horse").status, 400);
    EXPECT_EQ(signIn("dave@example.jp", "battery staple").status, 200);
}

TEST_F(IdentityRoutes, RepeatedWrongPasswordsAreRateLimited) {
    signUp("erin@example.jp");
    std::string last;
    for (int i = 0; i < 12; ++i) last = identityMessage(signIn("erin@example.jp", "guess " + std::to_string(i)).body);
    EXPECT_TRUE(last.starts_with("TOO_MANY_ATTEMPTS_TRY_LATER")) << last;
    // Even the right password waits now.
    EXPECT_TRUE(identityMessage(signIn("erin@example.jp", "correct horse").body).starts_with("TOO_MANY_ATTEMPTS"));
}

} // namespace
} // namespace tavelo::cloud
