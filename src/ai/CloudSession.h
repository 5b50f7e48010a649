#pragma once

#include "support/Date.h"
#include "support/EnumNames.h"
#include "support/Error.h"

#include <QString>
#include <QUrl>

#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace tavelo {

class JsonValue;
class JsonWriter;

// Fixed texts of the login and cloud settings screens.
namespace CloudTexts {
inline constexpr const char* passwordResetSent = "登録されている場合は再設定メールが届きます。";
inline constexpr const char* checkingLogin = "ログインを確認しています…";
inline constexpr const char* privateServerSection = "専用サーバーへの接続";
inline constexpr const char* connectionKey = "クラウド接続キー";
inline constexpr const char* userCodePrefix = "認証コード: ";
inline constexpr const char* openVerificationPage = "認証ページを開く";
inline constexpr const char* expirySuffix = "。期限が切れたら再度ログインしてください。";
inline constexpr const char* checkConnection = "接続状態を確認";
inline constexpr const char* chatGPTConnected = "ChatGPT 接続済み";
inline constexpr const char* chatGPTLogout = "ChatGPTからログアウト";
inline constexpr const char* chatGPTLogin = "ChatGPTでログイン";
inline constexpr const char* signOutOfThisMachine = "このMacからログアウト";
} // namespace CloudTexts

// A failure of the cloud account or one of its requests. Its text is shown
// to the user as it is.
class CloudError final : public Error {
public:
    explicit CloudError(QString message, std::optional<std::int32_t> status = std::nullopt,
                        std::optional<int> httpStatus = std::nullopt)
        : message_(std::move(message)), status_(status), httpStatus_(httpStatus) {}

    const QString& message() const { return message_; }
    // The secret-store status that caused it, if one did.
    std::optional<std::int32_t> status() const { return status_; }
    // The HTTP status of the response that caused it, if one did.
    std::optional<int> httpStatus() const { return httpStatus_; }

    std::optional<QString> errorDescription() const override { return message_; }
    const char* domain() const override { return "CloudError"; }

private:
    QString message_;
    std::optional<std::int32_t> status_;
    std::optional<int> httpStatus_;
};

enum class TaveloSessionKind { identity, owner };
TAVELO_STRING_ENUM(TaveloSessionKind, "identity", "owner")

// The reply of GET /v1/session.
struct TaveloSession {
    using Kind = TaveloSessionKind;

    QString userID;
    std::optional<QString> email;
    Kind kind = Kind::identity;
    std::optional<std::vector<QString>> capabilities;

    bool operator==(const TaveloSession&) const = default;

    static TaveloSession decode(const JsonValue& value);
    void encode(JsonWriter& w) const;
    static TaveloSession fromCloudJson(std::string_view text);
};

// The reply of GET /v1/account: whether a ChatGPT account is linked.
struct AIAccount {
    bool connected = false;
    std::optional<QString> email;
    std::optional<QString> plan;

    bool operator==(const AIAccount&) const = default;

    static AIAccount decode(const JsonValue& value);
    void encode(JsonWriter& w) const;
    static AIAccount fromCloudJson(std::string_view text);
};

// What the ChatGPT device-code login gives the user to type in.
struct AILogin {
    std::optional<Date> expiresAt;
    QUrl verificationUrl;
    QString userCode;

    bool operator==(const AILogin&) const = default;
};

// A reply that is a JSON object of strings only, such as {"status": "ok"}.
struct CloudStringMap {
    std::map<QString, QString> values;

    bool operator==(const CloudStringMap&) const = default;

    static CloudStringMap decode(const JsonValue& value);
    static CloudStringMap fromCloudJson(std::string_view text);
    // Nothing when the text is not such an object.
    static std::optional<CloudStringMap> tryFromCloudJson(std::string_view text);
};

} // namespace tavelo
