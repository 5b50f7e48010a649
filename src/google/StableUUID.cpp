#include "google/StableUUID.h"

#include <QByteArray>
#include <QString>

#include <cstdint>

namespace tavelo {

namespace {

constexpr std::uint64_t kFnvPrime = 0x100000001b3ULL;
constexpr std::uint64_t kFnvOffsetBasis = 0xcbf29ce484222325ULL;
constexpr std::uint64_t kSecondSeed = 0x6c6226444472131fULL;

std::uint64_t fnv1a(const QByteArray& bytes, std::uint64_t hash) {
    for (char c : bytes) {
        hash ^= static_cast<std::uint8_t>(c);
        hash *= kFnvPrime;
    }
    return hash;
}

} // namespace

UUID stableUUID(const UUID& nameSpace, const QString& value) {
    QByteArray text = QByteArray::fromStdString(nameSpace.toStdString());
    text.append('\0');
    text.append(value.toLower().toUtf8());

    const std::uint64_t first = fnv1a(text, kFnvOffsetBasis);
    const std::uint64_t second = fnv1a(text, kSecondSeed);
    UUID::Bytes bytes{};
    for (int i = 0; i < 8; ++i) {
        bytes[i] = static_cast<std::uint8_t>(first >> (56 - 8 * i));
        bytes[8 + i] = static_cast<std::uint8_t>(second >> (56 - 8 * i));
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0f) | 0x50);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3f) | 0x80);
    return UUID(bytes);
}

} // namespace tavelo
