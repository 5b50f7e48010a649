#include "support/UUID.h"

#include <QRandomGenerator>
#include <QString>

#include <array>
#include <cstdlib>

namespace tavelo {

namespace {

constexpr char kHex[] = "0123456789ABCDEF";

// -1 for anything that is not a hexadecimal digit.
constexpr auto kHexValues = [] {
    std::array<std::int8_t, 256> table{};
    for (auto& v : table) v = -1;
    for (int c = '0'; c <= '9'; ++c) table[c] = static_cast<std::int8_t>(c - '0');
    for (int c = 'A'; c <= 'F'; ++c) table[c] = static_cast<std::int8_t>(c - 'A' + 10);
    for (int c = 'a'; c <= 'f'; ++c) table[c] = static_cast<std::int8_t>(c - 'a' + 10);
    return table;
}();

int hexValue(char c) { return kHexValues[static_cast<unsigned char>(c)]; }

} // namespace

UUID UUID::random() {
    Bytes bytes;
    quint32 words[4];
    QRandomGenerator::system()->fillRange(words);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) bytes[i * 4 + j] = static_cast<std::uint8_t>(words[i] >> (8 * j));
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
    return UUID(bytes);
}

std::optional<UUID> UUID::fromString(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    if (text[8] != '-' || text[13] != '-' || text[18] != '-' || text[23] != '-') return std::nullopt;
    // Where the two digits of each byte start.
    static constexpr std::array<std::uint8_t, 16> kOffsets = {0, 2, 4, 6, 9, 11, 14, 16, 19, 21, 24, 26, 28, 30, 32, 34};
    Bytes bytes{};
    for (std::size_t i = 0; i < 16; ++i) {
        const int hi = hexValue(text[kOffsets[i]]);
        const int lo = hexValue(text[kOffsets[i] + 1]);
        if ((hi | lo) < 0) return std::nullopt;
        bytes[i] = static_cast<std::uint8_t>(hi << 4 | lo);
    }
    return UUID(bytes);
}

std::optional<UUID> UUID::fromString(const QString& text) {
    if (text.size() != 36) return std::nullopt;
    return fromString(std::string_view(text.toLatin1().constData(), 36));
}

UUID UUID::literal(std::string_view text) {
    auto parsed = fromString(text);
    if (!parsed) std::abort();
    return *parsed;
}

void UUID::write(char* out) const {
    std::size_t o = 0;
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out[o++] = '-';
        out[o++] = kHex[bytes_[i] >> 4];
        out[o++] = kHex[bytes_[i] & 0x0F];
    }
}

std::string UUID::toStdString() const {
    std::string s(36, '\0');
    write(s.data());
    return s;
}

QString UUID::toString() const {
    char buffer[36];
    write(buffer);
    return QString::fromLatin1(buffer, 36);
}

} // namespace tavelo
