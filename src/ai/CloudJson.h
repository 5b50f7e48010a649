#pragma once

// Helpers for the cloud's JSON, where dates are seconds since 1970. Include
// only from .cpp files (it pulls in the parser).

#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <QByteArray>

namespace tavelo::cloudjson {

inline Date readUnixDate(const JsonValue& value) { return Date::fromUnixSeconds(value.number()); }

inline Date requiredDate(const JsonObject& object, std::string_view key) {
    auto element = object.find(key);
    if (!element) object.fail(JsonDecodingError::Kind::keyNotFound, "No value associated with key " + std::string(key));
    JsonPath path{object.path(), key, -1};
    JsonValue value(*element, &path);
    if (value.isNull()) value.fail(JsonDecodingError::Kind::keyNotFound, "Expected a value but found null instead");
    return readUnixDate(value);
}

inline std::optional<Date> optionalDate(const JsonObject& object, std::string_view key) {
    auto element = object.find(key);
    if (!element) return std::nullopt;
    JsonPath path{object.path(), key, -1};
    JsonValue value(*element, &path);
    if (value.isNull()) return std::nullopt;
    return readUnixDate(value);
}

inline void writeDate(JsonWriter& w, std::string_view key, Date date) {
    w.key(key);
    w.number(date.unixSeconds());
}

inline void writeDate(JsonWriter& w, std::string_view key, const std::optional<Date>& date) {
    if (date) writeDate(w, key, *date);
}

inline QByteArray toBytes(const std::string& text) {
    return QByteArray(text.data(), static_cast<qsizetype>(text.size()));
}

} // namespace tavelo::cloudjson
