#pragma once

// Structured logs: one JSON object per line on standard error.

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace tavelo::cloud {

enum class LogLevel { debug, info, warning, error };

void setLogLevel(LogLevel level);
// `fields` are key/value pairs added to the line as strings.
void log(LogLevel level, std::string_view event,
         std::initializer_list<std::pair<std::string_view, std::string>> fields = {});

} // namespace tavelo::cloud
