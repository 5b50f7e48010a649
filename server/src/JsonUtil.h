#pragma once

// Small helpers for reading request bodies with Boost.JSON.

#include <boost/json.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace tavelo::cloud::json {

// The body as a JSON object; nothing when it is not valid JSON or no object.
inline std::optional<boost::json::object> parseObject(std::string_view text) {
    boost::system::error_code ec;
    boost::json::value value = boost::json::parse(text, ec);
    if (ec || !value.is_object()) return std::nullopt;
    return std::move(value.as_object());
}

inline std::optional<std::string> string(const boost::json::object& o, std::string_view key) {
    const auto* value = o.if_contains(key);
    if (!value || !value->is_string()) return std::nullopt;
    return std::string(value->as_string());
}

inline std::optional<double> number(const boost::json::object& o, std::string_view key) {
    const auto* value = o.if_contains(key);
    if (!value) return std::nullopt;
    if (value->is_double()) return value->as_double();
    if (value->is_int64()) return static_cast<double>(value->as_int64());
    if (value->is_uint64()) return static_cast<double>(value->as_uint64());
    return std::nullopt;
}

inline std::optional<bool> boolean(const boost::json::object& o, std::string_view key) {
    const auto* value = o.if_contains(key);
    if (!value || !value->is_bool()) return std::nullopt;
    return value->as_bool();
}

} // namespace tavelo::cloud::json
