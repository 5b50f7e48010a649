#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace tavelo {

// Enumerations with string raw values keep their names in declaration order,
// so a case's index is its value.
template <class E, std::size_t N>
constexpr std::string_view enumName(const std::array<std::string_view, N>& names, E value) {
    return names[static_cast<std::size_t>(value)];
}

template <class E, std::size_t N>
constexpr bool enumFromName(const std::array<std::string_view, N>& names, std::string_view text, E& out) {
    for (std::size_t i = 0; i < N; ++i) {
        if (names[i] == text) {
            out = static_cast<E>(i);
            return true;
        }
    }
    return false;
}

} // namespace tavelo

// Declares the names array k<Enum>Names, toString and fromString of an enum,
// in declaration order.
#define TAVELO_STRING_ENUM(Enum, ...)                                                                  \
    inline constexpr auto k##Enum##Names = std::to_array<std::string_view>({__VA_ARGS__});             \
    constexpr std::string_view toString(Enum value) { return ::tavelo::enumName(k##Enum##Names, value); } \
    constexpr bool fromString(std::string_view text, Enum& out) {                                      \
        return ::tavelo::enumFromName(k##Enum##Names, text, out);                                      \
    }
