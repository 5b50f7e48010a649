#include "support/JsonReader.h"

#include <cstring>
#include <limits>
#include <vector>

namespace tavelo {

namespace {

const char* kindName(JsonDecodingError::Kind kind) {
    switch (kind) {
    case JsonDecodingError::Kind::syntax: return "dataCorrupted (invalid JSON)";
    case JsonDecodingError::Kind::keyNotFound: return "keyNotFound";
    case JsonDecodingError::Kind::typeMismatch: return "typeMismatch";
    case JsonDecodingError::Kind::dataCorrupted: return "dataCorrupted";
    }
    return "unknown";
}

} // namespace

JsonDecodingError::JsonDecodingError(Kind kind, std::string path, std::string detail)
    : kind_(kind), path_(std::move(path)), detail_(std::move(detail)) {
    message_ = std::string(kindName(kind_)) + " at " + (path_.empty() ? std::string("<root>") : path_) + ": " + detail_;
}

std::string JsonPath::describe() const {
    std::vector<const JsonPath*> chain;
    for (const JsonPath* p = this; p; p = p->parent) chain.push_back(p);
    std::string out;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        const JsonPath* p = *it;
        if (p->index >= 0) {
            out.push_back('[');
            out += std::to_string(p->index);
            out.push_back(']');
        } else if (!p->key.empty()) {
            if (!out.empty()) out.push_back('.');
            out.append(p->key);
        }
    }
    return out;
}

void JsonValue::fail(JsonDecodingError::Kind kind, std::string detail) const {
    throw JsonDecodingError(kind, path_ ? path_->describe() : std::string(), std::move(detail));
}

void JsonObject::fail(JsonDecodingError::Kind kind, std::string detail) const {
    throw JsonDecodingError(kind, path_ ? path_->describe() : std::string(), std::move(detail));
}

JsonObject JsonValue::object() const {
    simdjson::dom::object object;
    if (element_.get_object().get(object) != simdjson::SUCCESS)
        fail(JsonDecodingError::Kind::typeMismatch, "Expected to decode a dictionary");
    return JsonObject(object, path_);
}

simdjson::dom::array JsonValue::array() const {
    simdjson::dom::array array;
    if (element_.get_array().get(array) != simdjson::SUCCESS)
        fail(JsonDecodingError::Kind::typeMismatch, "Expected to decode an array");
    return array;
}

std::string_view JsonValue::string() const {
    std::string_view s;
    if (element_.get_string().get(s) != simdjson::SUCCESS)
        fail(JsonDecodingError::Kind::typeMismatch, "Expected to decode a String");
    return s;
}

bool JsonValue::boolean() const {
    bool b = false;
    if (element_.get_bool().get(b) != simdjson::SUCCESS)
        fail(JsonDecodingError::Kind::typeMismatch, "Expected to decode a Bool");
    return b;
}

std::int64_t JsonValue::integer() const {
    std::int64_t i = 0;
    if (element_.get_int64().get(i) == simdjson::SUCCESS) return i;
    // A number written with a fraction or exponent still decodes when it is
    // exactly a whole number in range.
    double d = 0;
    if (element_.get_double().get(d) == simdjson::SUCCESS && d == static_cast<double>(static_cast<std::int64_t>(d)) &&
        d >= -9.2e18 && d <= 9.2e18)
        return static_cast<std::int64_t>(d);
    fail(JsonDecodingError::Kind::typeMismatch, "Expected to decode an Int");
}

double JsonValue::number() const {
    double d = 0;
    if (element_.get_double().get(d) != simdjson::SUCCESS)
        fail(JsonDecodingError::Kind::typeMismatch, "Expected to decode a Double");
    return d;
}


std::optional<simdjson::dom::element> JsonObject::find(std::string_view key) const {
    // A walk over the fields, first match wins: objects here are small.
    simdjson::dom::element element;
    if (object_.at_key(key).get(element) != simdjson::SUCCESS) return std::nullopt;
    return element;
}

void readJson(const JsonValue& v, int& out) {
    const auto i = v.integer();
    if (i < std::numeric_limits<int>::min() || i > std::numeric_limits<int>::max())
        v.fail(JsonDecodingError::Kind::dataCorrupted, "Number does not fit in Int");
    out = static_cast<int>(i);
}

void readJson(const JsonValue& v, QString& out) {
    const auto s = v.string();
    out = QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size()));
}

void readJson(const JsonValue& v, Date& out) {
    const auto s = v.string();
    auto date = Date::fromIsoString(s);
    if (!date) v.fail(JsonDecodingError::Kind::dataCorrupted, "Expected date string to be ISO8601-formatted.");
    out = *date;
}

void readJson(const JsonValue& v, UUID& out) {
    const auto s = v.string();
    auto uuid = UUID::fromString(s);
    if (!uuid) v.fail(JsonDecodingError::Kind::dataCorrupted, "Attempted to decode UUID from invalid UUID string.");
    out = *uuid;
}

void readJson(const JsonValue& v, QUrl& out) {
    const auto s = v.string();
    QUrl url(QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size())), QUrl::StrictMode);
    if (s.empty() || !url.isValid()) v.fail(JsonDecodingError::Kind::dataCorrupted, "Invalid URL string.");
    out = url;
}

simdjson::dom::element JsonDocumentParser::parse(std::string_view text) { return parse(text, true); }

simdjson::dom::element JsonDocumentParser::parseInPlace(std::string_view text) { return parse(text, false); }

simdjson::dom::element JsonDocumentParser::parse(std::string_view text, bool copy) {
    simdjson::dom::element element;
    auto error = parser_.parse(text.data(), text.size(), copy).get(element);
    if (error != simdjson::SUCCESS)
        throw JsonDecodingError(JsonDecodingError::Kind::syntax, std::string(),
                                std::string("The given data was not valid JSON: ") + simdjson::error_message(error));
    return element;
}

} // namespace tavelo
