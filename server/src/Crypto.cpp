#include "Crypto.h"

#include <sodium.h>

#include <stdexcept>

namespace tavelo::cloud::crypto {

namespace {
// Argon2id with 19 MiB and two passes: the interactive tier without letting
// a burst of sign-ins take hundreds of megabytes.
constexpr unsigned long long kOpsLimit = 2;
constexpr std::size_t kMemLimit = 19 * 1024 * 1024;
} // namespace

void initialise() {
    if (sodium_init() < 0) throw std::runtime_error("libsodium could not be initialised");
}

std::string randomBytes(std::size_t count) {
    std::string out(count, '\0');
    randombytes_buf(out.data(), count);
    return out;
}

std::string randomToken(std::size_t bytes) { return base64UrlEncode(randomBytes(bytes)); }

std::string newUUID() {
    unsigned char b[16];
    randombytes_buf(b, sizeof b);
    b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
    b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
    static const char* hex = "0123456789abcdef";
    std::string out;
    out.reserve(36);
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
        out.push_back(hex[b[i] >> 4]);
        out.push_back(hex[b[i] & 15]);
    }
    return out;
}

std::string sha256Hex(std::string_view data) {
    unsigned char digest[crypto_hash_sha256_BYTES];
    crypto_hash_sha256(digest, reinterpret_cast<const unsigned char*>(data.data()), data.size());
    char hex[crypto_hash_sha256_BYTES * 2 + 1];
    sodium_bin2hex(hex, sizeof hex, digest, sizeof digest);
    return std::string(hex, crypto_hash_sha256_BYTES * 2);
}

std::string hmacSha256(std::string_view key, std::string_view data) {
    crypto_auth_hmacsha256_state state;
    crypto_auth_hmacsha256_init(&state, reinterpret_cast<const unsigned char*>(key.data()), key.size());
    crypto_auth_hmacsha256_update(&state, reinterpret_cast<const unsigned char*>(data.data()), data.size());
    std::string out(crypto_auth_hmacsha256_BYTES, '\0');
    crypto_auth_hmacsha256_final(&state, reinterpret_cast<unsigned char*>(out.data()));
    return out;
}

bool constantTimeEquals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    return sodium_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string base64UrlEncode(std::string_view data) {
    const std::size_t length = sodium_base64_ENCODED_LEN(data.size(), sodium_base64_VARIANT_URLSAFE_NO_PADDING);
    std::string out(length, '\0');
    sodium_bin2base64(out.data(), length, reinterpret_cast<const unsigned char*>(data.data()), data.size(),
                      sodium_base64_VARIANT_URLSAFE_NO_PADDING);
    out.resize(length - 1);
    return out;
}

std::string base64Encode(std::string_view data) {
    const std::size_t length = sodium_base64_ENCODED_LEN(data.size(), sodium_base64_VARIANT_ORIGINAL);
    std::string out(length, '\0');
    sodium_bin2base64(out.data(), length, reinterpret_cast<const unsigned char*>(data.data()), data.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    out.resize(length - 1);
    return out;
}

bool base64UrlDecode(std::string_view text, std::string& out) {
    out.assign(text.size(), '\0');
    std::size_t length = 0;
    if (sodium_base642bin(reinterpret_cast<unsigned char*>(out.data()), out.size(), text.data(), text.size(), nullptr,
                          &length, nullptr, sodium_base64_VARIANT_URLSAFE_NO_PADDING) != 0)
        return false;
    out.resize(length);
    return true;
}

std::string hashPassword(std::string_view password) {
    char hash[crypto_pwhash_STRBYTES];
    if (crypto_pwhash_str_alg(hash, password.data(), password.size(), kOpsLimit, kMemLimit,
                              crypto_pwhash_ALG_ARGON2ID13) != 0)
        throw std::runtime_error("out of memory while hashing a password");
    return hash;
}

bool verifyPassword(std::string_view hash, std::string_view password) {
    const std::string text(hash);
    return crypto_pwhash_str_verify(text.c_str(), password.data(), password.size()) == 0;
}

} // namespace tavelo::cloud::crypto
