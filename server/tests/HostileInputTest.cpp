#include "ServerProcess.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <future>
#include <random>

namespace tavelo::cloud {
namespace {

using testing::ServerProcess;

std::string errorOf(const std::string& body) {
    const auto object = testing::jsonObject(body);
    const auto* error = object.if_contains("error");
    if (!error) return {};
    return error->is_string() ? std::string(error->as_string()) : std::string("(object)");
}

class HostileInput : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string schedule = R"({"id":"00000000-0000-4000-8000-000000000001","title":"keep me","prompt":"p",)"
                                     R"("firstRun":1767225600,"timeZoneID":"UTC","isPaused":false})";
        ASSERT_EQ(server.send("PUT", "/v1/schedules", schedule, key).status, 200);
        baseline = server.get("/v1/state", key).body;
    }
    // Whatever came before, the server answers and nothing stored changed.
    void expectIntact() {
        EXPECT_EQ(server.get("/healthz").status, 200);
        EXPECT_EQ(server.get("/v1/state", key).body, baseline);
    }

    ServerProcess server{{"--read-timeout", "1"}};
    std::string key = server.ownerKey();
    std::string baseline;
};

TEST_F(HostileInput, OversizedMalformedAndUnknownRequestsGetClearErrors) {
    const std::string huge(2 * 1024 * 1024, 'x');
    auto reply = server.send("PUT", "/v1/schedules", huge, key);
    EXPECT_EQ(reply.status, 413);
    EXPECT_FALSE(errorOf(reply.body).empty());

    reply = testing::rawRequest(server.port(), "GET /v1/session HTTP/1.1\r\nHost: x\r\nX-Big: " + std::string(64 * 1024, 'a') + "\r\n\r\n");
    EXPECT_EQ(reply.status, 431);

    reply = testing::rawRequest(server.port(), "THIS IS NOT HTTP\r\n\r\n");
    EXPECT_EQ(reply.status, 400);

    for (const char* body : {"{", "[]", "null", R"({"id":5})", R"({"id":"00000000-0000-4000-8000-000000000001","title":["t"]})"}) {
        reply = server.send("PUT", "/v1/schedules", body, key);
        EXPECT_EQ(reply.status, 400) << body;
        EXPECT_FALSE(errorOf(reply.body).empty()) << body;
    }
    reply = server.send("POST", "/v1/run", R"({"scheduleID":12})", key);
    EXPECT_EQ(reply.status, 400);
    expectIntact();
}

// Headers that never end, on a connection of their own: others are served
// meanwhile, and the connection is cut off after the one-second read limit.
TEST_F(HostileInput, ASlowClientIsCutOffAtTheReadLimitWithoutHoldingOthers) {
    const auto started = std::chrono::steady_clock::now();
    auto slow = std::async(std::launch::async, [&] {
        return testing::rawRequest(server.port(), "GET /v1/session HTTP/1.1\r\nHost: x\r\nX-Slow: ", 5000).status;
    });
    for (int i = 0; i < 20; ++i) EXPECT_EQ(server.get("/v1/session", key).status, 200);
    EXPECT_EQ(slow.wait_for(std::chrono::seconds(0)), std::future_status::timeout); // still hanging
    EXPECT_EQ(slow.get(), 0);
    const auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_LT(waited, std::chrono::milliseconds(4000));
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    expectIntact();
}

TEST_F(HostileInput, RandomisedRequestsNeverBreakTheServer) {
    std::mt19937 random(20261123); // fixed seed: a failure can be replayed
    const std::vector<std::string> methods{"GET", "PUT", "POST", "DELETE", "HEAD", "OPTIONS", "G\x01T", ""};
    const std::vector<std::string> paths{"/v1/session", "/v1/state", "/v1/schedules", "/v1/schedules/",
                                         "/v1/schedules/00000000-0000-4000-8000-000000000001x", "/v1/run", "/v1/token",
                                         "/v1/accounts:signUp?key=", "/v1/accounts:signInWithPassword", "/healthz",
                                         "/action?mode=resetPassword&oobCode=%00", "/%2e%2e/%2e%2e", "*", ""};
    const std::vector<std::string> fragments{"{", "}", "\"id\":", "\"title\":", "null", "true", "1e999", "-0", "[",
                                             "]", "\"\\u0000\"", "\xff\xfe", ",", ":", "\"scheduleID\"", "\"isPaused\":"};
    int answered = 0;
    for (int i = 0; i < 200; ++i) {
        std::string body;
        const int parts = static_cast<int>(random() % 12);
        for (int p = 0; p < parts; ++p) body += fragments[random() % fragments.size()];
        std::string raw = methods[random() % methods.size()] + " " + paths[random() % paths.size()] + " HTTP/1.1\r\nHost: x\r\n";
        switch (random() % 4) {
        case 0: raw += "Authorization: Bearer " + key + "\r\n"; break; // the real owner: must not lose data either
        case 1: raw += "Authorization: Bearer " + std::string(random() % 200, 'A') + "\r\n"; break;
        case 2: raw += "Transfer-Encoding: chunked\r\n"; break;
        default: break;
        }
        if (random() % 5 != 0) raw += "Content-Length: " + std::to_string(random() % 3 == 0 ? body.size() + random() % 5 : body.size()) + "\r\n";
        raw += "\r\n" + body;
        const auto reply = testing::rawRequest(server.port(), raw, 500);
        if (reply.status != 0) {
            ++answered;
            EXPECT_LT(reply.status, 500) << raw;
            if (reply.status >= 400 && reply.contentType.starts_with("application/json")) {
                EXPECT_FALSE(errorOf(reply.body).empty()) << raw;
            }
        }
    }
    EXPECT_GT(answered, 120);
    expectIntact();
}

} // namespace
} // namespace tavelo::cloud
