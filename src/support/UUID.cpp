#include "support/UUID.h"

#include <QRandomGenerator>
#include <QString>

#include <cstdlib>

namespace tavelo {

namespace {

constexpr char kHex[] = "0123456789ABCDEF";
constexpr bool isDashPosition(std::size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

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
    Bytes bytes{};
    std::size_t byte = 0;
    for (std::size_t i = 0; i < 36;) {
        if (isDashPosition(i)) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        const int hi = hexValue(text[i]);
        const int lo = hexValue(text[i + 1]);
        if (hi < 0 || lo < 0 || isDashPosition(i + 1)) return std::nullopt;
        bytes[byte++] = static_cast<std::uint8_t>(hi << 4 | lo);
        i += 2;
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
