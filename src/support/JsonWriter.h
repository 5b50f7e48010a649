#pragma once

#include "support/Date.h"
#include "support/UUID.h"

#include <QString>
#include <QUrl>

#include <concepts>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tavelo {

// A streaming JSON encoder. Keys come out in the order they are written, so a
// record's field order is its JSON key order. Dates are written as
// whole-second ISO 8601 text unless a caller writes them as numbers.
class JsonWriter {
public:
    explicit JsonWriter(std::string& out) : out_(out) {}

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    void key(std::string_view name);

    void null();
    void boolean(bool v);
    void integer(std::int64_t v);
    void number(double v);
    void string(std::string_view utf8);
    void string(const QString& text);
    void date(Date d) { string(d.isoString()); }
    void uuid(const UUID& u);
    void url(const QUrl& u) { string(u.toString(QUrl::FullyEncoded)); }

    std::string& buffer() { return out_; }

private:
    void separate();
    std::string& out_;
    bool needsComma_ = false;
};

// --- value encoders: overloads found for every field type ---------------------

inline void writeJson(JsonWriter& w, bool v) { w.boolean(v); }
inline void writeJson(JsonWriter& w, int v) { w.integer(v); }
inline void writeJson(JsonWriter& w, std::int64_t v) { w.integer(v); }
inline void writeJson(JsonWriter& w, double v) { w.number(v); }
inline void writeJson(JsonWriter& w, const QString& v) { w.string(v); }
inline void writeJson(JsonWriter& w, const std::string& v) { w.string(v); }
inline void writeJson(JsonWriter& w, Date v) { w.date(v); }
inline void writeJson(JsonWriter& w, const UUID& v) { w.uuid(v); }
inline void writeJson(JsonWriter& w, const QUrl& v) { w.url(v); }

template <class T>
concept JsonEncodableRecord = requires(const T& t, JsonWriter& w) { t.encode(w); };

template <class T>
concept StringEnum = std::is_enum_v<T> && requires(T e) {
    { toString(e) } -> std::convertible_to<std::string_view>;
};

template <JsonEncodableRecord T>
void writeJson(JsonWriter& w, const T& v) { v.encode(w); }

template <StringEnum E>
void writeJson(JsonWriter& w, E e) { w.string(toString(e)); }

template <class T>
void writeJson(JsonWriter& w, const std::vector<T>& values) {
    w.beginArray();
    for (const auto& v : values) writeJson(w, v);
    w.endArray();
}

template <class T>
void writeJson(JsonWriter& w, const std::set<T>& values) {
    w.beginArray();
    for (const auto& v : values) writeJson(w, v);
    w.endArray();
}

// A field that is always present.
template <class T>
void writeField(JsonWriter& w, std::string_view name, const T& value) {
    w.key(name);
    writeJson(w, value);
}

// An optional field: left out of the object when it holds nothing.
template <class T>
void writeField(JsonWriter& w, std::string_view name, const std::optional<T>& value) {
    if (!value) return;
    w.key(name);
    writeJson(w, *value);
}

template <class T>
std::string encodeJson(const T& value) {
    std::string out;
    JsonWriter w(out);
    writeJson(w, value);
    return out;
}

} // namespace tavelo
