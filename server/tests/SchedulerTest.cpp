#include "ServerProcess.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <map>

namespace tavelo::cloud {
namespace {

using testing::FakeProvider;
using testing::ServerProcess;

double now() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }

std::string scheduleJSON(int n, double firstRun, const char* recurrence = nullptr) {
    char id[40];
    std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", n);
    boost::json::object o{{"id", id}, {"title", "t" + std::to_string(n)}, {"prompt", "Summarise"}, {"firstRun", firstRun},
                          {"timeZoneID", "Asia/Tokyo"}, {"isPaused", false}};
    if (recurrence) o["recurrence"] = recurrence;
    return boost::json::serialize(o);
}

std::vector<boost::json::object> runsOf(const ServerProcess& server, const std::string& key) {
    const auto state = testing::jsonObject(server.get("/v1/state", key).body);
    std::vector<boost::json::object> runs;
    if (const auto* list = state.if_contains("runs")) {
        for (const auto& run : list->as_array()) runs.push_back(run.as_object());
    }
    return runs;
}

std::vector<std::string> providerArguments(const FakeProvider& provider, std::vector<std::string> more = {}) {
    std::vector<std::string> args{"--ai-base-url", provider.baseURL(), "--ai-model", "test-model", "--ai-key", "sk-test",
                                  "--scheduler-interval", "0.1", "--retry-delay", "0.2"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

bool allEnded(const std::vector<boost::json::object>& runs) {
    return !runs.empty() && std::all_of(runs.begin(), runs.end(), [](const auto& r) {
        return r.at("status") != "queued" && r.at("status") != "running";
    });
}

const std::string kRunFirst = R"({"scheduleID":"00000000-0000-4000-8000-000000000001"})";

// Saves schedule 1 for tomorrow, runs it now and gives the newest run once
// every run has ended.
boost::json::object runOnce(const ServerProcess& server) {
    const auto key = server.ownerKey();
    EXPECT_EQ(server.send("PUT", "/v1/schedules", scheduleJSON(1, now() + 86400), key).status, 200);
    EXPECT_EQ(server.send("POST", "/v1/run", kRunFirst, key).status, 200);
    EXPECT_TRUE(testing::eventually([&] { return allEnded(runsOf(server, key)); }, 15000));
    const auto runs = runsOf(server, key);
    return runs.empty() ? boost::json::object{} : runs.front();
}

// Busy providers and timeouts are tried again up to the limit; a refusal that
// retrying cannot fix fails at once. Each ends as a failed run with a reason.
TEST(Scheduler, FailedCallsAreRetriedOnlyWhenRetryingCanHelp) {
    auto late = FakeProvider::completion("late");
    late.delayMilliseconds = 3000;
    struct Case {
        const char* name;
        FakeProvider::Reply reply;
        std::vector<std::string> arguments;
        int calls;
        std::string error;
    };
    const Case cases[] = {
        {"overloaded", {503, R"({"error":{"message":"overloaded"}})"}, {"--run-attempts", "3"}, 3, "overloaded"},
        {"refused", {401, R"({"error":{"message":"bad key"}})"}, {"--run-attempts", "3"}, 1, ""},
        {"timed out", late, {"--ai-timeout", "0.5", "--run-attempts", "1"}, 1, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FakeProvider provider([&](const std::string&) { return c.reply; });
        ServerProcess server(providerArguments(provider, c.arguments));
        const auto run = runOnce(server);
        EXPECT_EQ(run.at("status"), "failed");
        const std::string error(run.at("error").as_string());
        EXPECT_FALSE(error.empty());
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
        EXPECT_EQ(provider.requestCount(), c.calls);
    }
}

TEST(Scheduler, DueOccurrencesRunOnceEvenWithTwoServersOnOneDatabase) {
    FakeProvider provider([](const std::string&) { return FakeProvider::completion("done"); });
    ServerProcess first(providerArguments(provider));
    const auto key = first.ownerKey();
    ServerProcess second(providerArguments(provider), first.home()); // same files, another port
    const double at = std::floor(now()) + 2;
    for (int i = 1; i <= 12; ++i) ASSERT_EQ(first.send("PUT", "/v1/schedules", scheduleJSON(i, at, "daily"), key).status, 200);
    ASSERT_TRUE(testing::eventually([&] {
        const auto runs = runsOf(first, key);
        return runs.size() == 12 && allEnded(runs);
    }, 15000));
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // a double would show up by now
    const auto runs = runsOf(second, key);
    EXPECT_EQ(runs.size(), 12u);
    EXPECT_EQ(provider.requestCount(), 12);
    std::map<std::string, int> perSchedule;
    for (const auto& run : runs) {
        ++perSchedule[std::string(run.at("scheduleID").as_string())];
        EXPECT_EQ(run.at("scheduledAt").as_int64(), static_cast<std::int64_t>(at));
        EXPECT_EQ(run.at("status"), "complete");
    }
    EXPECT_EQ(perSchedule.size(), 12u);
    // The provider is asked with the configured model and the schedule's prompt.
    const auto sent = boost::json::parse(provider.bodies().at(0)).as_object();
    EXPECT_EQ(sent.at("model"), "test-model");
    EXPECT_EQ(sent.at("messages").as_array().at(0).at("content"), "Summarise");
}

TEST(Scheduler, AnOccurrenceDueWhileTheServerWasDownRunsOnceAfterTheRestart) {
    FakeProvider provider([](const std::string&) { return FakeProvider::completion("late but done"); });
    ServerProcess server(providerArguments(provider));
    const auto key = server.ownerKey();
    const double at = std::floor(now()) + 2;
    ASSERT_EQ(server.send("PUT", "/v1/schedules", scheduleJSON(1, at, "weekly"), key).status, 200);
    ASSERT_EQ(server.stop(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int>((at - now()) * 1000) + 500));
    server.start();
    ASSERT_TRUE(testing::eventually([&] { return allEnded(runsOf(server, key)); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const auto runs = runsOf(server, key);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].at("scheduledAt").as_int64(), static_cast<std::int64_t>(at));
}

TEST(Scheduler, KillDuringARunNeitherLosesNorDoublesIt) {
    std::atomic<int> calls{0};
    FakeProvider provider([&](const std::string&) {
        auto reply = FakeProvider::completion("finished");
        // The first call hangs past the kill; the next one answers.
        if (calls++ == 0) reply.delayMilliseconds = 4000;
        return reply;
    });
    testing::TemporaryDirectory home;
    ServerProcess server(providerArguments(provider, {"--ai-timeout", "2"}), home.path());
    const auto key = server.ownerKey();
    ASSERT_EQ(server.send("PUT", "/v1/schedules", scheduleJSON(1, now() + 86400), key).status, 200);
    ASSERT_EQ(server.send("POST", "/v1/run", kRunFirst, key).status, 200);
    ASSERT_TRUE(testing::eventually([&] { return provider.requestCount() == 1; }));
    server.kill9();
    server.start();
    ASSERT_TRUE(testing::eventually([&] { return allEnded(runsOf(server, key)); }, 20000));
    const auto runs = runsOf(server, key);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].at("status"), "complete");
    EXPECT_EQ(runs[0].at("output"), "finished");
}

TEST(Scheduler, KillDuringWritesKeepsEveryAcknowledgedWrite) {
    testing::TemporaryDirectory home;
    ServerProcess server({}, home.path());
    const auto key = server.ownerKey();
    std::atomic<int> acknowledged{0};
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 1; !stop; ++i) {
            if (server.send("PUT", "/v1/schedules", scheduleJSON(i, now() + 86400), key).status == 200) acknowledged = i;
            else break;
        }
    });
    ASSERT_TRUE(testing::eventually([&] { return acknowledged >= 50; }));
    server.kill9();
    stop = true;
    writer.join();
    const int written = acknowledged;
    server.start();
    const auto state = boost::json::parse(server.get("/v1/state", key).body).as_object();
    EXPECT_GE(static_cast<int>(state.at("schedules").as_array().size()), written);
}

} // namespace
} // namespace tavelo::cloud
