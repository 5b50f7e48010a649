#pragma once

// Who is calling: the owner with the connection key, or an account of the
// identity service with an ID token. Also the identity service itself:
// accounts, passwords (Argon2id), ID tokens (HS256 JWT, one hour) and
// rotating refresh tokens.

#include "Http.h"

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace tavelo::cloud {

class Storage;
class Mailer;
struct Config;
struct UserRecord;

struct Principal {
    std::string userID;
    std::optional<std::string> email;
    bool owner = false;
    bool emailVerified = false;
};

// Failed sign-ins per key within a sliding window.
class RateLimiter {
public:
    RateLimiter(int limit, double windowSeconds) : limit_(limit), window_(windowSeconds) {}
    bool blocked(const std::string& key, double now);
    void recordFailure(const std::string& key, double now);
    void reset(const std::string& key);

private:
    struct Entry {
        int count = 0;
        double windowStart = 0;
    };
    int limit_;
    double window_;
    std::mutex mutex_;
    std::map<std::string, Entry> entries_;
};

class Identity {
public:
    static constexpr int kIdTokenLifetime = 3600;
    static constexpr std::size_t kMinimumPasswordLength = 6;

    Identity(Storage& storage, Mailer& mailer, const Config& config, std::function<double()> now);

    // Makes the owner connection key when none exists (or when `reset`);
    // gives the new key, which is never stored in clear.
    std::optional<std::string> ensureOwnerKey(bool reset);
    const std::string& apiKey() const { return apiKey_; }

    // The caller of an "Authorization: Bearer ..." header; nothing when the
    // token is missing, malformed, expired or unknown.
    std::optional<Principal> authenticate(std::string_view authorization) const;

    // The identity service's routes ("?key=" is checked here).
    Response signUp(const Request& request);
    Response signInWithPassword(const Request& request);
    Response sendOobCode(const Request& request);
    Response refresh(const Request& request);
    Response resetPassword(const Request& request);
    Response update(const Request& request);

    // For tests: a token signed with this server's key.
    std::string issueIdToken(const UserRecord& user, double issuedAt) const;

private:
    std::optional<Principal> verifyIdToken(std::string_view token) const;
    std::string issueRefreshToken(const std::string& userID, const std::string& family);
    bool validKey(const Request& request) const;
    std::string link(const std::string& action, const std::string& code) const;

    Storage& storage_;
    Mailer& mailer_;
    const Config& config_;
    std::function<double()> now_;
    std::string ownerKeyHash_;
    std::string signingKey_;
    std::string apiKey_;
    RateLimiter perAccount_{10, 900};
    RateLimiter perAddress_{50, 900};
};

// The identity service's error reply: status 400 and
// {"error": {"code": 400, "message": message, "errors": [...]}}.
Response identityError(std::string_view message, int status = 400);

} // namespace tavelo::cloud
