#pragma once

// Strict JSON decoding on top of simdjson. Include only from .cpp files: the
// parser header is large.

#include "support/Date.h"
#include "support/Error.h"
#include "support/UUID.h"

#include <QString>
#include <QUrl>

#include <simdjson.h>

#include <concepts>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tavelo {

// Any failure to decode a document: bad syntax, a missing key, a value of the
// wrong type, an unknown enumeration string, a malformed date or UUID.
class JsonDecodingError final : public Error {
public:
    enum class Kind { syntax, keyNotFound, typeMismatch, dataCorrupted };
    JsonDecodingError(Kind kind, std::string path, std::string detail);

    const char* domain() const override { return "DecodingError"; }
    int code() const override { return static_cast<int>(kind_); }
    Kind kind() const { return kind_; }
    const std::string& path() const { return path_; }
    const std::string& detail() const { return detail_; }
    const char* what() const noexcept override { return message_.c_str(); }

private:
    Kind kind_;
    std::string path_;
    std::string detail_;
    std::string message_;
};

// The position of a value inside its document, kept as a chain on the stack
// so that errors can name "events[3].start" without costing anything on the
// successful path.
struct JsonPath {
    const JsonPath* parent = nullptr;
    std::string_view key;
    std::int64_t index = -1;
    std::string describe() const;
};

class JsonObject;

class JsonValue {
public:
    JsonValue(simdjson::dom::element element, const JsonPath* path) : element_(element), path_(path) {}

    bool isNull() const { return element_.is_null(); }
    JsonObject object() const;
    simdjson::dom::array array() const;
    std::string_view string() const;
    bool boolean() const;
    std::int64_t integer() const;
    double number() const;

    [[noreturn]] void fail(JsonDecodingError::Kind kind, std::string detail) const;
    const JsonPath* path() const { return path_; }
    simdjson::dom::element raw() const { return element_; }

private:
    simdjson::dom::element element_;
    const JsonPath* path_;
};

// An object whose fields are looked up by key. When a key occurs more than
// once, its first occurrence counts, as everywhere in this reader.
class JsonObject {
public:
    JsonObject(simdjson::dom::object object, const JsonPath* path) : object_(object), path_(path) {}

    std::size_t size() const { return object_.size(); }
    // The value under `key`, when the key is present (it may hold null).
    std::optional<simdjson::dom::element> find(std::string_view key) const;
    [[noreturn]] void fail(JsonDecodingError::Kind kind, std::string detail) const;
    const JsonPath* path() const { return path_; }
    simdjson::dom::object raw() const { return object_; }

private:
    simdjson::dom::object object_;
    const JsonPath* path_;
};

// --- value decoders: overloads for every field type ---------------------------

inline void readJson(const JsonValue& v, bool& out) { out = v.boolean(); }
inline void readJson(const JsonValue& v, std::int64_t& out) { out = v.integer(); }
void readJson(const JsonValue& v, int& out);
inline void readJson(const JsonValue& v, double& out) { out = v.number(); }
void readJson(const JsonValue& v, QString& out);
inline void readJson(const JsonValue& v, std::string& out) { out = std::string(v.string()); }
void readJson(const JsonValue& v, Date& out);
void readJson(const JsonValue& v, UUID& out);
void readJson(const JsonValue& v, QUrl& out);

template <class T>
concept JsonDecodableRecord = requires(const JsonValue& v) {
    { T::decode(v) } -> std::same_as<T>;
};

template <class E>
concept StringDecodableEnum = std::is_enum_v<E> && requires(std::string_view s, E& e) {
    { fromString(s, e) } -> std::same_as<bool>;
};

template <JsonDecodableRecord T>
void readJson(const JsonValue& v, T& out) { out = T::decode(v); }

template <StringDecodableEnum E>
void readJson(const JsonValue& v, E& out) {
    const auto text = v.string();
    if (!fromString(text, out))
        v.fail(JsonDecodingError::Kind::dataCorrupted, "Cannot initialize from invalid String value " + std::string(text));
}

template <class T>
void readJson(const JsonValue& v, std::vector<T>& out) {
    const auto array = v.array();
    out.clear();
    out.reserve(array.size());
    std::int64_t index = 0;
    for (auto element : array) {
        JsonPath path{v.path(), {}, index++};
        T item{};
        readJson(JsonValue(element, &path), item);
        out.push_back(std::move(item));
    }
}

template <class T>
void readJson(const JsonValue& v, std::set<T>& out) {
    const auto array = v.array();
    out.clear();
    std::int64_t index = 0;
    for (auto element : array) {
        JsonPath path{v.path(), {}, index++};
        T item{};
        readJson(JsonValue(element, &path), item);
        out.insert(std::move(item));
    }
}

// A key that must be present and not null.
template <class T>
T required(const JsonObject& object, std::string_view key) {
    auto element = object.find(key);
    if (!element) object.fail(JsonDecodingError::Kind::keyNotFound, "No value associated with key " + std::string(key));
    JsonPath path{object.path(), key, -1};
    JsonValue value(*element, &path);
    if (value.isNull()) value.fail(JsonDecodingError::Kind::keyNotFound, "Expected a value but found null instead");
    T out{};
    readJson(value, out);
    return out;
}

// A key that may be absent or null.
template <class T>
std::optional<T> optional(const JsonObject& object, std::string_view key) {
    auto element = object.find(key);
    if (!element) return std::nullopt;
    JsonPath path{object.path(), key, -1};
    JsonValue value(*element, &path);
    if (value.isNull()) return std::nullopt;
    T out{};
    readJson(value, out);
    return out;
}

// Parses documents one after another with one reusable parser. The value
// returned by `parse` is valid until the next call.
class JsonDocumentParser {
public:
    // How many readable bytes must follow a text given to `parseInPlace`.
    // Their content does not matter.
    static constexpr std::size_t kPadding = simdjson::SIMDJSON_PADDING;

    simdjson::dom::element parse(std::string_view text);
    // As `parse`, for a text followed by kPadding readable bytes: it is
    // parsed where it lies instead of being copied first.
    simdjson::dom::element parseInPlace(std::string_view text);

    template <class T>
    T decode(std::string_view text) {
        return decodeElement<T>(parse(text));
    }
    template <class T>
    T decodeInPlace(std::string_view text) {
        return decodeElement<T>(parseInPlace(text));
    }

private:
    template <class T>
    static T decodeElement(simdjson::dom::element element) {
        JsonPath root;
        T out{};
        readJson(JsonValue(element, &root), out);
        return out;
    }
    simdjson::dom::element parse(std::string_view text, bool copy);

    simdjson::dom::parser parser_;
};

// One-off decoding of a whole document.
template <class T>
T decodeJson(std::string_view text) {
    JsonDocumentParser parser;
    return parser.decode<T>(text);
}

} // namespace tavelo
