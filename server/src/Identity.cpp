#include "Identity.h"

#include "Config.h"
#include "Crypto.h"
#include "JsonUtil.h"
#include "Log.h"
#include "Mailer.h"
#include "Storage.h"

#include <boost/json.hpp>

#include <algorithm>
#include <cmath>

namespace tavelo::cloud {

namespace {

constexpr double kOobCodeLifetime = 3600;
constexpr const char* kIssuer = "tavelo-cloud";
constexpr const char* kTooManyAttempts =
    "TOO_MANY_ATTEMPTS_TRY_LATER : Access to this account has been temporarily disabled due to many failed login "
    "attempts. You can try again later.";

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return text;
}

bool plausibleEmail(const std::string& email) {
    if (email.size() < 3 || email.size() > 254) return false;
    const auto at = email.find('@');
    if (at == std::string::npos || at == 0 || email.find('@', at + 1) != std::string::npos) return false;
    const std::string domain = email.substr(at + 1);
    if (domain.empty() || domain.front() == '.' || domain.back() == '.' || domain.find('.') == std::string::npos)
        return false;
    return std::none_of(email.begin(), email.end(),
                        [](unsigned char c) { return c <= ' ' || c == '<' || c == '>' || c == '"' || c == 0x7f; });
}

Response ok(boost::json::object o) { return Response{200, boost::json::serialize(o)}; }

// The request body as an object: JSON, or a form for the token route.
std::optional<boost::json::object> bodyObject(const Request& request, bool allowForm) {
    if (auto o = json::parseObject(request.body)) return o;
    if (!allowForm || request.contentType.find("application/x-www-form-urlencoded") == std::string::npos)
        return std::nullopt;
    boost::json::object o;
    for (const char* key : {"grant_type", "refresh_token"}) o[key] = queryValue(request.body, key);
    return o;
}

} // namespace

Response identityError(std::string_view message, int status) {
    boost::json::object detail;
    detail["message"] = message;
    detail["domain"] = "global";
    detail["reason"] = "invalid";
    boost::json::object error;
    error["code"] = status;
    error["message"] = message;
    error["errors"] = boost::json::array{detail};
    boost::json::object o;
    o["error"] = std::move(error);
    return Response{status, boost::json::serialize(o)};
}

bool RateLimiter::blocked(const std::string& key, double now) {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(key);
    if (it == entries_.end()) return false;
    if (now - it->second.windowStart > window_) {
        entries_.erase(it);
        return false;
    }
    return it->second.count >= limit_;
}

void RateLimiter::recordFailure(const std::string& key, double now) {
    std::lock_guard lock(mutex_);
    // Bounded memory: forget expired windows when the table grows.
    if (entries_.size() > 100000) std::erase_if(entries_, [&](const auto& e) { return now - e.second.windowStart > window_; });
    auto& entry = entries_[key];
    if (entry.count == 0 || now - entry.windowStart > window_) entry = Entry{0, now};
    ++entry.count;
}

void RateLimiter::reset(const std::string& key) {
    std::lock_guard lock(mutex_);
    entries_.erase(key);
}

Identity::Identity(Storage& storage, Mailer& mailer, const Config& config, std::function<double()> now)
    : storage_(storage), mailer_(mailer), config_(config), now_(std::move(now)) {
    std::string key;
    if (!crypto::base64UrlDecode(storage_.settingOrInsert("id_token_signing_key", crypto::randomToken(32)), key))
        throw StorageError("the stored token signing key is damaged");
    signingKey_ = key;
    apiKey_ = storage_.settingOrInsert("identity_api_key", crypto::randomToken(24));
    ownerKeyHash_ = storage_.setting("owner_key_hash").value_or("");
}

std::optional<std::string> Identity::ensureOwnerKey(bool reset) {
    const std::string key = crypto::randomToken(32); // 43 characters
    const std::string hash = crypto::sha256Hex(key);
    if (reset) {
        storage_.setSetting("owner_key_hash", hash);
        ownerKeyHash_ = hash;
        return key;
    }
    ownerKeyHash_ = storage_.settingOrInsert("owner_key_hash", hash);
    if (ownerKeyHash_ == hash) return key;
    return std::nullopt;
}

std::optional<Principal> Identity::authenticate(std::string_view authorization) const {
    constexpr std::string_view scheme = "Bearer ";
    if (authorization.size() <= scheme.size() || !authorization.starts_with(scheme)) return std::nullopt;
    const std::string_view token = authorization.substr(scheme.size());
    if (token.size() > 8192) return std::nullopt;
    if (std::count(token.begin(), token.end(), '.') == 2) return verifyIdToken(token);
    if (ownerKeyHash_.empty() || !crypto::constantTimeEquals(crypto::sha256Hex(token), ownerKeyHash_)) return std::nullopt;
    return Principal{"owner", std::nullopt, true, true};
}

std::string Identity::issueIdToken(const UserRecord& user, double issuedAt) const {
    boost::json::object header{{"alg", "HS256"}, {"typ", "JWT"}};
    const auto iat = static_cast<std::int64_t>(std::floor(issuedAt));
    boost::json::object claims{{"iss", kIssuer},
                               {"sub", user.id},
                               {"email", user.email},
                               {"email_verified", user.emailVerified},
                               {"iat", iat},
                               {"exp", iat + kIdTokenLifetime}};
    const std::string signingInput = crypto::base64UrlEncode(boost::json::serialize(header)) + "." +
                                     crypto::base64UrlEncode(boost::json::serialize(claims));
    return signingInput + "." + crypto::base64UrlEncode(crypto::hmacSha256(signingKey_, signingInput));
}

std::optional<Principal> Identity::verifyIdToken(std::string_view token) const {
    const auto firstDot = token.find('.');
    const auto secondDot = token.rfind('.');
    const std::string_view signingInput = token.substr(0, secondDot);
    std::string signature, headerText, claimsText;
    if (!crypto::base64UrlDecode(token.substr(secondDot + 1), signature)) return std::nullopt;
    if (!crypto::constantTimeEquals(signature, crypto::hmacSha256(signingKey_, signingInput))) return std::nullopt;
    if (!crypto::base64UrlDecode(token.substr(0, firstDot), headerText) ||
        !crypto::base64UrlDecode(token.substr(firstDot + 1, secondDot - firstDot - 1), claimsText))
        return std::nullopt;
    const auto header = json::parseObject(headerText);
    const auto claims = json::parseObject(claimsText);
    if (!header || !claims || json::string(*header, "alg") != "HS256") return std::nullopt;
    const auto exp = json::number(*claims, "exp");
    const auto sub = json::string(*claims, "sub");
    if (!exp || !sub || sub->empty() || *exp <= now_() || json::string(*claims, "iss") != kIssuer) return std::nullopt;
    return Principal{*sub, json::string(*claims, "email"), false, json::boolean(*claims, "email_verified").value_or(false)};
}

std::string Identity::issueRefreshToken(const std::string& userID, const std::string& family) {
    const std::string token = crypto::randomToken(32);
    storage_.insertRefreshToken(RefreshTokenRecord{crypto::sha256Hex(token), family, userID, now_(), std::nullopt, false});
    return token;
}

bool Identity::validKey(const Request& request) const {
    return crypto::constantTimeEquals(queryValue(request.query, "key"), apiKey_);
}

std::string Identity::link(const std::string& action, const std::string& code) const {
    const std::string base = config_.publicURL.empty() ? config_.endpoint(config_.listenPort) : config_.publicURL;
    return base + "/action?mode=" + action + "&oobCode=" + code;
}

namespace {
Response invalidKey() { return identityError("API key not valid. Please pass a valid API key."); }
} // namespace

Response Identity::signUp(const Request& request) {
    if (!validKey(request)) return invalidKey();
    if (!config_.allowSignUp) return identityError("OPERATION_NOT_ALLOWED");
    const auto body = bodyObject(request, false);
    if (!body) return identityError("INVALID_JSON");
    const auto email = json::string(*body, "email");
    const auto password = json::string(*body, "password");
    if (!email || email->empty()) return identityError("MISSING_EMAIL");
    const std::string address = lower(*email);
    if (!plausibleEmail(address)) return identityError("INVALID_EMAIL");
    if (!password || password->empty()) return identityError("MISSING_PASSWORD");
    if (password->size() < kMinimumPasswordLength)
        return identityError("WEAK_PASSWORD : Password should be at least 6 characters");
    if (password->size() > 4096) return identityError("INVALID_PASSWORD");
    UserRecord user{crypto::newUUID(), address, crypto::hashPassword(*password), false, now_()};
    if (!storage_.createUser(user)) return identityError("EMAIL_EXISTS");
    log(LogLevel::info, "account_created", {{"userID", user.id}});
    return ok({{"kind", "identitytoolkit#SignupNewUserResponse"},
               {"localId", user.id},
               {"email", user.email},
               {"idToken", issueIdToken(user, now_())},
               {"refreshToken", issueRefreshToken(user.id, crypto::newUUID())},
               {"expiresIn", std::to_string(kIdTokenLifetime)}});
}

Response Identity::signInWithPassword(const Request& request) {
    if (!validKey(request)) return invalidKey();
    const auto body = bodyObject(request, false);
    if (!body) return identityError("INVALID_JSON");
    const auto email = json::string(*body, "email");
    const auto password = json::string(*body, "password");
    if (!email || email->empty()) return identityError("INVALID_EMAIL");
    if (!password || password->empty()) return identityError("MISSING_PASSWORD");
    const std::string address = lower(*email);
    const double now = now_();
    const std::string addressKey = "ip:" + request.remoteAddress;
    if (perAccount_.blocked(address, now) || perAddress_.blocked(addressKey, now)) return identityError(kTooManyAttempts);
    const auto user = storage_.userByEmail(address);
    // An unknown address costs a hash too, so that timing tells nothing.
    static const std::string decoy = crypto::hashPassword(crypto::randomToken(16));
    const bool verified = crypto::verifyPassword(user ? user->passwordHash : decoy, *password) && user;
    if (!verified) {
        perAccount_.recordFailure(address, now);
        perAddress_.recordFailure(addressKey, now);
        log(LogLevel::info, "sign_in_refused", {{"remote", request.remoteAddress}});
        return identityError("INVALID_LOGIN_CREDENTIALS");
    }
    perAccount_.reset(address);
    return ok({{"kind", "identitytoolkit#VerifyPasswordResponse"},
               {"localId", user->id},
               {"email", user->email},
               {"displayName", ""},
               {"registered", true},
               {"idToken", issueIdToken(*user, now)},
               {"refreshToken", issueRefreshToken(user->id, crypto::newUUID())},
               {"expiresIn", std::to_string(kIdTokenLifetime)}});
}

Response Identity::sendOobCode(const Request& request) {
    if (!validKey(request)) return invalidKey();
    const auto body = bodyObject(request, false);
    if (!body) return identityError("INVALID_JSON");
    const auto type = json::string(*body, "requestType");
    std::optional<UserRecord> user;
    std::string kind, subject, text;
    if (type == "PASSWORD_RESET") {
        const auto email = json::string(*body, "email");
        if (!email || email->empty()) return identityError("MISSING_EMAIL");
        if (!plausibleEmail(lower(*email))) return identityError("INVALID_EMAIL");
        user = storage_.userByEmail(lower(*email));
        // The same answer whether the address is known or not.
        if (!user) return ok({{"kind", "identitytoolkit#GetOobConfirmationCodeResponse"}, {"email", lower(*email)}});
        kind = "resetPassword";
        subject = "Tavelo: パスワードの再設定";
        text = "パスワードを再設定するには次のリンクを開いてください（1時間有効）:\n";
    } else if (type == "VERIFY_EMAIL") {
        const auto token = json::string(*body, "idToken");
        const auto principal = token ? verifyIdToken(*token) : std::nullopt;
        if (!principal) return identityError("INVALID_ID_TOKEN");
        user = storage_.userByID(principal->userID);
        if (!user) return identityError("USER_NOT_FOUND");
        kind = "verifyEmail";
        subject = "Tavelo: メールアドレスの確認";
        text = "メールアドレスを確認するには次のリンクを開いてください（1時間有効）:\n";
    } else {
        return identityError("INVALID_REQ_TYPE");
    }
    const std::string code = crypto::randomToken(24);
    storage_.insertOobCode(crypto::sha256Hex(code), user->id, kind, now_() + kOobCodeLifetime);
    mailer_.send(user->email, subject, text + link(kind, code) + "\n\nコード: " + code + "\n");
    return ok({{"kind", "identitytoolkit#GetOobConfirmationCodeResponse"}, {"email", user->email}});
}

Response Identity::refresh(const Request& request) {
    if (!validKey(request)) return invalidKey();
    const auto body = bodyObject(request, true);
    if (!body) return identityError("INVALID_JSON");
    if (json::string(*body, "grant_type") != "refresh_token") return identityError("INVALID_GRANT_TYPE");
    const auto token = json::string(*body, "refresh_token");
    if (!token || token->empty()) return identityError("MISSING_REFRESH_TOKEN");
    const double now = now_();
    const auto record = storage_.refreshToken(crypto::sha256Hex(*token));
    if (!record || record->revoked) return identityError("INVALID_REFRESH_TOKEN");
    if (record->replacedAt && now - *record->replacedAt > config_.refreshGraceSeconds) {
        // A token used again after its successor took over: whoever holds
        // this family may be a thief, so the whole family goes.
        storage_.revokeRefreshFamily(record->family);
        log(LogLevel::warning, "refresh_token_reused", {{"userID", record->userID}});
        return identityError("INVALID_REFRESH_TOKEN");
    }
    const auto user = storage_.userByID(record->userID);
    if (!user) return identityError("USER_NOT_FOUND");
    const std::string next = issueRefreshToken(user->id, record->family);
    storage_.markRefreshTokenReplaced(record->hash, now);
    return ok({{"expires_in", std::to_string(kIdTokenLifetime)},
               {"token_type", "Bearer"},
               {"refresh_token", next},
               {"id_token", issueIdToken(*user, now)},
               {"user_id", user->id},
               {"project_id", "tavelo-cloud"}});
}

Response Identity::resetPassword(const Request& request) {
    if (!validKey(request)) return invalidKey();
    const auto body = bodyObject(request, false);
    if (!body) return identityError("INVALID_JSON");
    const auto code = json::string(*body, "oobCode");
    const auto password = json::string(*body, "newPassword");
    if (!code || code->empty()) return identityError("INVALID_OOB_CODE");
    if (!password || password->size() < kMinimumPasswordLength)
        return identityError("WEAK_PASSWORD : Password should be at least 6 characters");
    const auto userID = storage_.consumeOobCode(crypto::sha256Hex(*code), "resetPassword", now_());
    if (!userID) return identityError("INVALID_OOB_CODE");
    const auto user = storage_.userByID(*userID);
    if (!user) return identityError("USER_NOT_FOUND");
    storage_.setPasswordHash(*userID, crypto::hashPassword(*password));
    storage_.revokeUserRefreshTokens(*userID);
    perAccount_.reset(user->email);
    return ok({{"kind", "identitytoolkit#ResetPasswordResponse"}, {"email", user->email}, {"requestType", "PASSWORD_RESET"}});
}

Response Identity::update(const Request& request) {
    if (!validKey(request)) return invalidKey();
    const auto body = bodyObject(request, false);
    if (!body) return identityError("INVALID_JSON");
    const auto code = json::string(*body, "oobCode");
    if (!code || code->empty()) return identityError("INVALID_OOB_CODE");
    const auto userID = storage_.consumeOobCode(crypto::sha256Hex(*code), "verifyEmail", now_());
    if (!userID) return identityError("INVALID_OOB_CODE");
    storage_.setEmailVerified(*userID);
    const auto user = storage_.userByID(*userID);
    if (!user) return identityError("USER_NOT_FOUND");
    return ok({{"kind", "identitytoolkit#SetAccountInfoResponse"},
               {"localId", user->id},
               {"email", user->email},
               {"emailVerified", true}});
}

} // namespace tavelo::cloud
