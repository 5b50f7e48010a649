#include "Scheduler.h"

#include "Crypto.h"
#include "HttpClient.h"
#include "JsonUtil.h"
#include "Log.h"
#include "Schedule.h"
#include "Storage.h"

#include <boost/json.hpp>

#include <unistd.h>

#include <cmath>

namespace tavelo::cloud {

namespace {
constexpr int kScanBatch = 500;
// Missed occurrences kept per gap; older ones are simply not listed.
constexpr std::size_t kMissedLimit = 50;
constexpr const char* kNoProvider = "AIプロバイダーが設定されていないため実行できませんでした。";
constexpr const char* kUnlinked = "AIプロバイダーとの接続が解除されているため実行できませんでした。";

std::string hostName() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}
} // namespace

ProviderResult callProvider(const ProviderConfig& provider, const std::string& prompt) {
    std::string base = provider.baseURL;
    while (base.ends_with('/')) base.pop_back();
    boost::json::object message{{"role", "user"}, {"content", prompt}};
    boost::json::object body{{"model", provider.model}, {"messages", boost::json::array{message}}};
    std::vector<std::pair<std::string, std::string>> headers{{"Content-Type", "application/json"}};
    if (!provider.apiKey.empty()) headers.emplace_back("Authorization", "Bearer " + provider.apiKey);
    ClientReply reply;
    try {
        reply = httpPost(base + "/chat/completions", headers, boost::json::serialize(body), provider.timeoutSeconds);
    } catch (const HttpClientError& error) {
        return {false, true, std::string("AIプロバイダーに接続できませんでした: ") + error.what()};
    }
    const auto object = json::parseObject(reply.body);
    if (reply.status != 200) {
        std::string detail;
        if (object) {
            if (const auto* error = object->if_contains("error"); error && error->is_object())
                detail = json::string(error->as_object(), "message").value_or("");
        }
        const bool retryable = reply.status == 429 || reply.status >= 500;
        return {false, retryable,
                "AIプロバイダーがエラーを返しました (HTTP " + std::to_string(reply.status) + ")" +
                    (detail.empty() ? std::string() : ": " + detail)};
    }
    if (object) {
        if (const auto* choices = object->if_contains("choices"); choices && choices->is_array() && !choices->as_array().empty()) {
            const auto& first = choices->as_array().front();
            if (first.is_object()) {
                if (const auto* m = first.as_object().if_contains("message"); m && m->is_object()) {
                    if (auto content = json::string(m->as_object(), "content")) return {true, false, *content};
                }
            }
        }
    }
    return {false, false, "AIプロバイダーの応答を読み取れませんでした。"};
}

Scheduler::Scheduler(Storage& storage, const Config& config, std::function<double()> now, int workers)
    : storage_(storage), config_(config), now_(std::move(now)), workerCount_(std::max(1, workers)),
      workerID_(hostName() + ":" + std::to_string(getpid()) + ":" + crypto::randomToken(6)) {}

Scheduler::~Scheduler() { stop(); }

void Scheduler::start() {
    threads_.emplace_back([this] { scanLoop(); });
    for (int i = 0; i < workerCount_; ++i) threads_.emplace_back([this] { workLoop(); });
}

void Scheduler::stop() {
    {
        std::lock_guard lock(mutex_);
        if (stopping_.exchange(true) && threads_.empty()) return;
    }
    signal_.notify_all();
    for (auto& thread : threads_)
        if (thread.joinable()) thread.join();
    threads_.clear();
}

void Scheduler::wake() {
    {
        std::lock_guard lock(mutex_);
        ++wakeups_;
    }
    signal_.notify_all();
}

int Scheduler::scanOnce() {
    const double now = now_();
    // A lease lasts the provider's limit and a margin; past that its process is gone.
    storage_.recoverExpiredRuns(now, config_.runAttempts);
    int queued = 0;
    for (;;) {
        const auto due = storage_.dueSchedules(now, kScanBatch);
        for (const auto& item : due) {
            auto times = occurrences(item.schedule, item.nextRunAt, std::nextafter(now, INFINITY));
            if (times.empty()) times.push_back(item.nextRunAt);
            const double latest = times.back();
            times.pop_back();
            if (times.size() > kMissedLimit) times.erase(times.begin(), times.end() - kMissedLimit);
            const auto next = nextOccurrence(item.schedule, latest);
            if (storage_.advanceSchedule(item, latest, times, next, now) && !item.schedule.isPaused) ++queued;
        }
        if (due.size() < static_cast<std::size_t>(kScanBatch)) break;
    }
    return queued;
}

bool Scheduler::executeOne() {
    const double timeout = config_.provider.timeoutSeconds;
    const double lease = timeout + std::min(30.0, timeout + 5);
    const auto claimed = storage_.claimRun(workerID_, now_(), lease);
    if (!claimed) return false;
    execute(*claimed);
    return true;
}

void Scheduler::execute(const ClaimedRun& claimed) {
    const auto& run = claimed.run;
    if (!config_.provider.configured()) {
        storage_.finishRun(run.id, workerID_, "failed", "", std::string(kNoProvider), now_());
        return;
    }
    if (!storage_.aiLinked(claimed.userID)) {
        storage_.finishRun(run.id, workerID_, "failed", "", std::string(kUnlinked), now_());
        return;
    }
    log(LogLevel::info, "run_started", {{"runID", run.id}, {"attempt", std::to_string(claimed.attempts)}});
    const auto result = callProvider(config_.provider, claimed.prompt);
    if (result.ok) {
        storage_.finishRun(run.id, workerID_, "complete", result.text, std::nullopt, now_());
        log(LogLevel::info, "run_complete", {{"runID", run.id}});
        return;
    }
    if (result.retryable && claimed.attempts < config_.runAttempts) {
        const double delay = config_.retryDelaySeconds * std::pow(2.0, claimed.attempts - 1);
        storage_.retryRun(run.id, workerID_, result.text, now_() + delay);
        log(LogLevel::warning, "run_retry", {{"runID", run.id}, {"message", result.text}});
        return;
    }
    storage_.finishRun(run.id, workerID_, "failed", "", result.text, now_());
    log(LogLevel::warning, "run_failed", {{"runID", run.id}, {"message", result.text}});
}

void Scheduler::scanLoop() {
    const auto interval = std::chrono::milliseconds(static_cast<long long>(config_.schedulerIntervalSeconds * 1000));
    while (!stopping_) {
        try {
            if (scanOnce() > 0) wake();
        } catch (const std::exception& error) {
            log(LogLevel::error, "scan_failed", {{"message", error.what()}});
        }
        std::unique_lock lock(mutex_);
        const auto seen = wakeups_;
        signal_.wait_for(lock, interval, [&] { return stopping_ || wakeups_ != seen; });
    }
}

void Scheduler::workLoop() {
    const auto interval = std::chrono::milliseconds(static_cast<long long>(config_.schedulerIntervalSeconds * 1000));
    while (!stopping_) {
        bool worked = false;
        try {
            worked = executeOne();
        } catch (const std::exception& error) {
            log(LogLevel::error, "run_failed_internally", {{"message", error.what()}});
        }
        if (worked) continue;
        std::unique_lock lock(mutex_);
        const auto seen = wakeups_;
        signal_.wait_for(lock, interval, [&] { return stopping_ || wakeups_ != seen; });
    }
}

} // namespace tavelo::cloud
