#pragma once

// Random values, hashes and password hashing (libsodium).

#include <string>
#include <string_view>

namespace tavelo::cloud::crypto {

// Initialises libsodium; call once before anything else here.
void initialise();

std::string randomBytes(std::size_t count);
// `bytes` random bytes as unpadded base64url text.
std::string randomToken(std::size_t bytes = 32);
// A random version-4 UUID in lower case.
std::string newUUID();
std::string sha256Hex(std::string_view data);
std::string hmacSha256(std::string_view key, std::string_view data);
bool constantTimeEquals(std::string_view a, std::string_view b);

std::string base64UrlEncode(std::string_view data);
// Standard base64 with padding (mail headers).
std::string base64Encode(std::string_view data);
// False when `text` is no unpadded base64url.
bool base64UrlDecode(std::string_view text, std::string& out);

// Argon2id in libsodium's self-describing string form.
std::string hashPassword(std::string_view password);
bool verifyPassword(std::string_view hash, std::string_view password);

} // namespace tavelo::cloud::crypto
