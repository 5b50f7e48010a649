#pragma once

// A record's JSON shape written once: a list of fields, each a key and a
// member, serves both the encoder and the decoder. Include only from .cpp
// files (it brings in the decoder).
//
//     TAVELO_JSON_RECORD(Tag,
//         jsonField("id", &Tag::id),
//         jsonField("weeklyTargetMinutes", &Tag::weeklyTargetMinutes))
//
// Keys are written in the listed order. A `std::optional` member is optional
// both ways: left out when empty, read as empty when absent or null. Every
// other member is required, unless listed with `jsonDefaulted`: always
// written, kept at its default when absent or null. A field whose value is
// coded differently names a codec: `jsonField<UnixDateCodec>(...)`.

#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <optional>
#include <string_view>

namespace tavelo {

// How a field's value is read and written when the field names no codec of
// its own: the readJson / writeJson overloads of its type.
struct JsonDefaultCodec {
    template <class V>
    static void read(const JsonValue& value, V& out) { readJson(value, out); }
    template <class V>
    static void write(JsonWriter& w, const V& value) { writeJson(w, value); }
};

template <class T, class M, class Codec = JsonDefaultCodec>
struct JsonField {
    std::string_view key;
    M T::*member;
    bool defaulted = false;
};

template <class Codec = JsonDefaultCodec, class T, class M>
constexpr JsonField<T, M, Codec> jsonField(std::string_view key, M T::*member) {
    return {key, member, false};
}

template <class Codec = JsonDefaultCodec, class T, class M>
constexpr JsonField<T, M, Codec> jsonDefaulted(std::string_view key, M T::*member) {
    return {key, member, true};
}

namespace detail {

template <class M>
inline constexpr bool isOptional = false;
template <class M>
inline constexpr bool isOptional<std::optional<M>> = true;

template <class T, class M, class Codec>
void readField(const JsonObject& object, T& record, const JsonField<T, M, Codec>& field) {
    const bool mayBeMissing = isOptional<M> || field.defaulted;
    auto element = object.find(field.key);
    if (!element) {
        if (mayBeMissing) return;
        object.fail(JsonDecodingError::Kind::keyNotFound, "No value associated with key " + std::string(field.key));
    }
    JsonPath path{object.path(), field.key, -1};
    JsonValue value(*element, &path);
    if (value.isNull()) {
        if (mayBeMissing) return;
        value.fail(JsonDecodingError::Kind::keyNotFound, "Expected a value but found null instead");
    }
    M& out = record.*field.member;
    if constexpr (isOptional<M>)
        Codec::read(value, out.emplace());
    else
        Codec::read(value, out);
}

template <class T, class M, class Codec>
void writeField(JsonWriter& w, const T& record, const JsonField<T, M, Codec>& field) {
    const M& value = record.*field.member;
    if constexpr (isOptional<M>) {
        if (!value) return;
        w.key(field.key);
        Codec::write(w, *value);
    } else {
        w.key(field.key);
        Codec::write(w, value);
    }
}

} // namespace detail

template <class T, class... M, class... C>
void encodeRecord(JsonWriter& w, const T& record, const JsonField<T, M, C>&... fields) {
    w.beginObject();
    (detail::writeField(w, record, fields), ...);
    w.endObject();
}

// Fields are looked up in the listed order, so the first missing key of the
// list is the one reported.
template <class T, class... M, class... C>
T decodeRecord(const JsonValue& v, const JsonField<T, M, C>&... fields) {
    const auto object = v.object();
    T record{};
    (detail::readField(object, record, fields), ...);
    return record;
}

} // namespace tavelo

// Defines Type::encode and Type::decode from one field list.
#define TAVELO_JSON_RECORD(Type, ...)                                                                  \
    void Type::encode(::tavelo::JsonWriter& w) const { ::tavelo::encodeRecord(w, *this, __VA_ARGS__); } \
    Type Type::decode(const ::tavelo::JsonValue& v) { return ::tavelo::decodeRecord<Type>(v, __VA_ARGS__); }
