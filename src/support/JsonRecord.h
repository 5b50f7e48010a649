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
// written, kept at its default when absent or null.

#include "support/JsonReader.h"
#include "support/JsonWriter.h"

#include <optional>
#include <string_view>

namespace tavelo {

template <class T, class M>
struct JsonField {
    std::string_view key;
    M T::*member;
    bool defaulted = false;
};

template <class T, class M>
constexpr JsonField<T, M> jsonField(std::string_view key, M T::*member) {
    return {key, member, false};
}

template <class T, class M>
constexpr JsonField<T, M> jsonDefaulted(std::string_view key, M T::*member) {
    return {key, member, true};
}

namespace detail {

template <class M>
inline constexpr bool isOptional = false;
template <class M>
inline constexpr bool isOptional<std::optional<M>> = true;

template <class T, class M>
void readField(const JsonObject& object, T& record, const JsonField<T, M>& field) {
    M& out = record.*field.member;
    if constexpr (isOptional<M>)
        readOptional(object, field.key, out);
    else if (field.defaulted)
        readDefaulted(object, field.key, out);
    else
        readRequired(object, field.key, out);
}

} // namespace detail

template <class T, class... M>
void encodeRecord(JsonWriter& w, const T& record, const JsonField<T, M>&... fields) {
    w.beginObject();
    (writeField(w, fields.key, record.*fields.member), ...);
    w.endObject();
}

// Fields are looked up in the listed order, so the first missing key of the
// list is the one reported.
template <class T, class... M>
T decodeRecord(const JsonValue& v, const JsonField<T, M>&... fields) {
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
