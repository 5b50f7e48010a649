#include "ServerProcess.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <cmath>
#include <map>

namespace tavelo::cloud {
namespace {

using testing::FakeProvider;
using testing::ServerProcess;

double now() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }

std::string scheduleJSON(int n, double firstRun, const char* recurrence = nullptr, const std::string& prompt = "Summarise") {
    char id[40];
    std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", n);
    boost::json::object o{{"id", id}, {"title", "t" + std::to_string(n)}, {"prompt", prompt}, {"firstRun", firstRun},
                          {"timeZoneID", "Asia/Tokyo"}, {"isPaused", false}};
    if (recurrence) o["recurrence"] = recurrence;
    return boost::json::serialize(o);
}

std::vector<boost::json::object> runsOf(const ServerProcess& server, const std::string& key) {
    const auto reply = server.get("/v1/state", key);
    std::vector<boost::json::object> runs;
    boost::system::error_code ec;
    const auto value = boost::json::parse(reply.body, ec);
    if (ec || !value.is_object()) return runs;
    for (const auto& run : value.as_object().at("runs").as_array()) runs.push_back(run.as_object());
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

TEST(Scheduler, RunNowCallsTheProviderAndStoresItsAnswer) {
    FakeProvider provider([](const std::string&) { return FakeProvider::completion("今日の予定は3件です。"); });
    ServerProcess server(providerArguments(provider));
    const auto key = server.ownerKey();
    ASSERT_EQ(server.send("PUT", "/v1/schedules", scheduleJSON(1, now() + 86400, nullptr, "今日の予定をまとめて"), key).status, 200);
    ASSERT_EQ(server.send("POST", "/v1/run", R"({"scheduleID":"00000000-0000-4000-8000-000000000001"})", key).status, 200);
    ASSERT_TRUE(testing::eventually([&] { return allEnded(runsOf(server, key)); }));
    const auto run = runsOf(server, key).at(0);
    EXPECT_EQ(run.at("status"), "complete");
    EXPECT_EQ(run.at("output"), "今日の予定は3件です。");
    EXPECT_TRUE(run.contains("startedAt") && run.contains("endedAt"));
    ASSERT_EQ(provider.requestCount(), 1);
    const auto sent = boost::json::parse(provider.bodies().at(0)).as_object();
    EXPECT_EQ(sent.at("model"), "test-model");
    EXPECT_EQ(sent.at("messages").as_array().at(0).as_object().at("content"), "今日の予定をまとめて");
}

TEST(Scheduler, ProviderFailuresAreRetriedThenEndAsFailedWithTheMessage) {
    FakeProvider provider([](const std::string&) {
        return FakeProvider::Reply{503, R"({"error":{"message":"overloaded"}})", 0};
    });
    ServerProcess server(providerArguments(provider, {"--run-attempts", "3"}));
    const auto key = server.ownerKey();
    ASSERT_EQ(server.send("PUT", "/v1/schedules", scheduleJSON(1, now() + 86400), key).status, 200);
    ASSERT_EQ(server.send("POST", "/v1/run", R"({"scheduleID":"00000000-0000-4000-8000-000000000001"})", key).status, 200);
    ASSERT_TRUE(testing::eventually([&] { return allEnded(runsOf(server, key)); }, 15000));
    const auto run = runsOf(server, key).at(0);
    EXPECT_EQ(run.at("status"), "failed");
    EXPECT_NE(std::string(run.at("error").as_string()).find("overloaded"), std::string::npos);
    EXPECT_EQ(provider.requestCount(), 3);

    // A refusal that retrying cannot fix fails at once.
    FakeProvider refusing([](const std::string&) { return FakeProvider::Reply{401, R"({"error":{"message":"bad key"}})", 0}; });
    server.stop();
    ServerProcess second(providerArguments(refusing), server.home());
    ASSERT_EQ(second.send("POST", "/v1/run", R"({"scheduleID":"00000000-0000-4000-8000-000000000001"})", key).status, 200);
    ASSERT_TRUE(testing::eventually([&] { return allEnded(runsOf(second, key)); }, 15000));
    EXPECT_EQ(refusing.requestCount(), 1);
}

TEST(Scheduler, ATimeoutEndsAsAFailedRun) {
    FakeProvider slow([](const std::string&) {
        auto reply = FakeProvider::completion("late");
        reply.delayMilliseconds = 3000;
        return reply;
    });
    ServerProcess server(providerArguments(slow, {"--ai-timeout", "0.5", "--run-attempts", "1"}));
    const auto key = server.ownerKey();
    ASSERT_EQ(server.send("PUT", "/v1/schedules", scheduleJSON(1, now() + 86400), key).status, 200);
    ASSERT_EQ(server.send("POST", "/v1/run", R"({"scheduleID":"00000000-0000-4000-8000-000000000001"})", key).status, 200);
    ASSERT_TRUE(testing::eventually([&] { return allEnded(runsOf(server, key)); }, 15000));
    const auto run = runsOf(server, key).at(0);
    EXPECT_EQ(run.at("status"), "failed");
    EXPECT_FALSE(std::string(run.at("error").as_string()).empty());
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
}

TEST(Scheduler, AnOccurrenceDueWhileTheServerWasDownRunsOnceAfterTheRestart) {
    FakeProvider provider([](const std::string&) { return FakeProvider::completion("late but done"); });
    ServerProcess server(providerArguments(provider));
    const auto key = server.ownerKey();
    const double at = std::floor(now()) + 2;
    ASSERT_EQ(server.send("PUT", "/v1/schedules", scheduleJSON(1, at, "weekly"), key).status, 200);
    ASSERT_EQ(server.stop(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int>((at - now()) * 1000) + 500));
    EXPECT_EQ(provider.requestCount(), 0);
    server.start();
    ASSERT_TRUE(testing::eventually([&] { return allEnded(runsOf(server, key)); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const auto runs = runsOf(server, key);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].at("scheduledAt").as_int64(), static_cast<std::int64_t>(at));
    EXPECT_EQ(runs[0].at("output"), "late but done");
    EXPECT_EQ(provider.requestCount(), 1);
}

TEST(Scheduler, KillDuringARunNeitherLosesNorDoublesIt) {
    std::atomic<int> calls{0};
    FakeProvider provider([&](const std::string&) {
        auto reply = FakeProvider::completion("finished");
        // The first call hangs past the kill; the next one answers.
        if (calls++ == 0) reply.delayMilliseconds = 4000;
        return reply;
    });
    auto server = std::make_unique<ServerProcess>(providerArguments(provider, {"--ai-timeout", "2"}));
    const auto key = server->ownerKey();
    const std::string home = server->home();
    testing::TemporaryDirectory keep; // the process's own folder goes with it; keep the data
    ASSERT_EQ(server->send("PUT", "/v1/schedules", scheduleJSON(1, now() + 86400), key).status, 200);
    ASSERT_EQ(server->send("POST", "/v1/run", R"({"scheduleID":"00000000-0000-4000-8000-000000000001"})", key).status, 200);
    ASSERT_TRUE(testing::eventually([&] { return provider.requestCount() == 1; }));
    server->kill9();
    std::filesystem::copy(home, keep.path(), std::filesystem::copy_options::recursive);
    server.reset();

    ServerProcess restarted(providerArguments(provider, {"--ai-timeout", "2"}), keep.path());
    ASSERT_TRUE(testing::eventually([&] { return allEnded(runsOf(restarted, key)); }, 20000));
    const auto runs = runsOf(restarted, key);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].at("status"), "complete");
    EXPECT_EQ(runs[0].at("output"), "finished");
}

TEST(Scheduler, KillDuringWritesKeepsEveryAcknowledgedWrite) {
    auto server = std::make_unique<ServerProcess>();
    const auto key = server->ownerKey();
    testing::TemporaryDirectory keep;
    std::atomic<int> acknowledged{0};
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 1; !stop; ++i) {
            if (server->send("PUT", "/v1/schedules", scheduleJSON(i, now() + 86400), key).status == 200) acknowledged = i;
            else break;
        }
    });
    ASSERT_TRUE(testing::eventually([&] { return acknowledged >= 50; }));
    server->kill9();
    stop = true;
    writer.join();
    const int written = acknowledged;
    std::filesystem::copy(server->home(), keep.path(), std::filesystem::copy_options::recursive);
    server.reset();
    ServerProcess restarted({}, keep.path());
    const auto state = boost::json::parse(restarted.get("/v1/state", key).body).as_object();
    EXPECT_GE(static_cast<int>(state.at("schedules").as_array().size()), written);
}

} // namespace
} // namespace tavelo::cloud
