#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

class QString;

namespace tavelo {

// A 128-bit identifier. Its text is the canonical 36-character form with
// upper-case hexadecimal digits ("785A676B-A42A-46B9-8D45-6335F8B12837").
class UUID {
public:
    using Bytes = std::array<std::uint8_t, 16>;

    constexpr UUID() = default;
    constexpr explicit UUID(const Bytes& bytes) : bytes_(bytes) {}

    // A random (version 4) UUID from the system's secure generator.
    static UUID random();
    // Accepts the canonical form with upper- or lower-case digits; anything
    // else yields nothing.
    static std::optional<UUID> fromString(std::string_view text);
    static std::optional<UUID> fromString(const QString& text);
    // For constants written in the source; aborts on malformed text.
    static UUID literal(std::string_view text);

    std::string toStdString() const;
    QString toString() const;
    // Writes the 36 characters at `out`.
    void write(char* out) const;

    const Bytes& bytes() const { return bytes_; }
    bool isNil() const { return *this == UUID(); }

    constexpr auto operator<=>(const UUID&) const = default;
    constexpr bool operator==(const UUID&) const = default;

private:
    Bytes bytes_{};
};

} // namespace tavelo

template <>
struct std::hash<tavelo::UUID> {
    std::size_t operator()(const tavelo::UUID& u) const noexcept {
        std::uint64_t a = 0, b = 0;
        for (int i = 0; i < 8; ++i) a = (a << 8) | u.bytes()[i];
        for (int i = 8; i < 16; ++i) b = (b << 8) | u.bytes()[i];
        return static_cast<std::size_t>(a ^ (b * 0x9E3779B97F4A7C15ULL));
    }
};
