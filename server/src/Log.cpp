#include "Log.h"

#include <boost/json.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>

namespace tavelo::cloud {

namespace {
std::atomic<int> minimumLevel{static_cast<int>(LogLevel::info)};
std::mutex outputMutex;

const char* name(LogLevel level) {
    switch (level) {
    case LogLevel::debug: return "debug";
    case LogLevel::info: return "info";
    case LogLevel::warning: return "warning";
    case LogLevel::error: return "error";
    }
    return "info";
}
} // namespace

void setLogLevel(LogLevel level) { minimumLevel = static_cast<int>(level); }

void log(LogLevel level, std::string_view event, std::initializer_list<std::pair<std::string_view, std::string>> fields) {
    if (static_cast<int>(level) < minimumLevel) return;
    boost::json::object line;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    line["time"] = std::chrono::duration<double>(now).count();
    line["level"] = name(level);
    line["event"] = event;
    for (const auto& [key, value] : fields) line[key] = value;
    const std::string text = boost::json::serialize(line) + "\n";
    std::lock_guard lock(outputMutex);
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

} // namespace tavelo::cloud
