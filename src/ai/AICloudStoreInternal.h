#pragma once

// What the files of AICloudStore share: the user-default keys, the texts the
// user sees, the time limits and the small helpers of the request path.
// Internal to the ai layer.

#include "ai/AICloudStore.h"

#include "ai/CloudJson.h"

#include <QCryptographicHash>
#include <QLoggingCategory>
#include <QStringDecoder>
#include <QTextBoundaryFinder>
#include <QUrl>

#include <map>
#include <optional>
#include <variant>

namespace tavelo {

Q_DECLARE_LOGGING_CATEGORY(lcAICloud)

namespace aicloud {

// --- user defaults -----------------------------------------------------------
inline const QString kEndpointKey = QStringLiteral("aiCloudEndpoint");
inline const QString kAuthKindKey = QStringLiteral("taveloAuthKind");
inline const QString kConnectionIDKey = QStringLiteral("aiCloudConnectionID");
inline const QString kConnectionIDPrefix = QStringLiteral("aiCloudConnectionID.");
inline const QString kEmailKey = QStringLiteral("taveloEmail");
inline const QString kHostedEndpointKey = QStringLiteral("aiCloudHostedEndpoint");
inline const QString kIdentityToolkitKey = QStringLiteral("aiCloudIdentityToolkitURL");
inline const QString kSecureTokenKey = QStringLiteral("aiCloudSecureTokenURL");
inline const QString kOpenAIAuthHostKey = QStringLiteral("aiCloudOpenAIAuthHost");

inline const QString kIdentityKeyPrefix = QStringLiteral("identity:");

// --- texts ---------------------------------------------------------------------
inline const QString kNotConnected = QStringLiteral("設定でAI Cloudに接続してください。");
inline const QString kCannotReachCloud = QStringLiteral("クラウドへ接続できませんでした。");
inline const QString kRegistrationUnavailable = QStringLiteral("ユーザー登録は準備中です。");
inline const QString kIdentityRefused =
    QStringLiteral("認証できませんでした。メールアドレス・パスワードを確認してください。登録済みの場合はログインしてください。");
inline const QString kSignInFailed = QStringLiteral("ログインに失敗しました。");
inline const QString kSessionUnconfirmed = QStringLiteral("ログインを確認できませんでした。");
inline const QString kSignInAgain = QStringLiteral("もう一度Taveloにログインしてください。");
inline const QString kBadEndpointOrKey = QStringLiteral("HTTPSの接続先とクラウド接続キーを入力してください。");
inline const QString kNotOwnerServer = QStringLiteral("専用サーバーの認証を確認できませんでした。");
inline const QString kKeySaveFailed = QStringLiteral("接続キーをキーチェーンに保存できませんでした。");
inline const QString kKeyMissing = QStringLiteral("設定でクラウド接続キーを入力してください。");
inline const QString kKeyReadFailed =
    QStringLiteral("接続キーを読み取れませんでした。キーチェーンのアクセスを確認してTaveloを再起動してください。");
inline const QString kLoginExpired = QStringLiteral("認証の有効期限が切れました。もう一度ログインしてください。");
inline const QString kBadVerificationURL = QStringLiteral("認証URLを確認できませんでした。");
inline const QString kLoginSlow = QStringLiteral("認証の準備に時間がかかっています。しばらく待って再試行してください。");
inline const QString kCacheWriteFailed = QStringLiteral("AI Scheduleのキャッシュを保存できませんでした。");

inline constexpr double kRequestTimeout = 40.0;
inline constexpr double kConfigTimeout = 60.0;
inline constexpr double kIdentityTimeout = 30.0;
inline constexpr double kIdentityTokenLifetime = 3500.0;
inline constexpr double kLoginPollInterval = 3.0;
inline constexpr int kLoginPollLimit = 80;
inline constexpr int kMinimumKeyLength = 32;
inline constexpr qint64 kMaximumCacheBytes = 64LL * 1024 * 1024;
// The earliest instant the platform names; an expiry that has always passed.
inline constexpr Date kDistantPast = Date::fromReferenceSeconds(-63114076800.0);

enum Change : unsigned {
    kStateChange = 1u << 0,
    kAccountChange = 1u << 1,
    kErrorMessageChange = 1u << 2,
    kEndpointChange = 1u << 3,
    kSessionChange = 1u << 4,
    kRestoringChange = 1u << 5,
    kRefreshingChange = 1u << 6,
    kEmailChange = 1u << 7,
    kConnectionIDChange = 1u << 8,
};

inline qsizetype visibleLength(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() != -1) ++count;
    return count;
}

inline QString trimmedBaseURL(QString text) {
    text = text.trimmed();
    while (text.endsWith(QLatin1Char('/'))) text.chop(1);
    return text;
}

// "<base>/v1/<path>", when that is an absolute URL with a host.
inline std::optional<QUrl> cloudURL(const QString& base, const QString& path) {
    if (base.isEmpty()) return std::nullopt;
    const QUrl url(base + QStringLiteral("/v1/") + path, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) return std::nullopt;
    return url;
}

inline QByteArray jsonObject(std::initializer_list<std::pair<std::string_view, QString>> strings,
                      std::optional<std::pair<std::string_view, bool>> flag = std::nullopt) {
    std::string out;
    JsonWriter w(out);
    w.beginObject();
    for (const auto& [key, value] : strings) {
        w.key(key);
        w.string(value);
    }
    if (flag) {
        w.key(flag->first);
        w.boolean(flag->second);
    }
    w.endObject();
    return cloudjson::toBytes(out);
}

inline QByteArray passwordBody(const QString& email, const QString& password) {
    return jsonObject({{"email", email}, {"password", password}}, std::pair<std::string_view, bool>{"returnSecureToken", true});
}

inline QByteArray refreshBody(const QString& refreshToken) {
    return jsonObject({{"grant_type", QStringLiteral("refresh_token")}, {"refresh_token", refreshToken}});
}

inline QByteArray oobCodeBody(const QString& requestType, const char* key, const QString& value) {
    return jsonObject({{"requestType", requestType}, {key, value}});
}

inline QByteArray runBody(const UUID& scheduleID) { return jsonObject({{"scheduleID", scheduleID.toString().toLower()}}); }

// The string members of a JSON object; nothing when the text is no object.
inline std::optional<std::map<QString, QString>> stringMembers(const QByteArray& body) {
    try {
        JsonDocumentParser parser;
        simdjson::dom::object object;
        if (parser.parse(std::string_view(body.constData(), static_cast<std::size_t>(body.size())))
                .get_object()
                .get(object) != simdjson::SUCCESS)
            return std::nullopt;
        std::map<QString, QString> members;
        for (auto field : object) {
            std::string_view text;
            if (field.value.get_string().get(text) != simdjson::SUCCESS) continue;
            members[QString::fromUtf8(field.key.data(), static_cast<qsizetype>(field.key.size()))] =
                QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
        }
        return members;
    } catch (const JsonDecodingError&) {
        return std::nullopt;
    }
}

inline std::optional<QString> member(const std::map<QString, QString>& members, const char* key) {
    auto it = members.find(QString::fromLatin1(key));
    if (it == members.end()) return std::nullopt;
    return it->second;
}

struct LockRelease {
    std::shared_ptr<AsyncFifoLock> lock;
    ~LockRelease() { lock->release(); }
};

inline QString rememberedToken(const std::variant<QString, CloudError>& remembered) {
    if (const auto* error = std::get_if<CloudError>(&remembered)) throw *error;
    return std::get<QString>(remembered);
}

inline std::variant<QString, CloudError> interpretRead(const SecretReadResult& result) {
    if (result.status == SecretStatus::success) {
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        QString text = decoder(result.data);
        if (decoder.hasError()) return CloudError(kKeyMissing);
        return text;
    }
    if (result.status == SecretStatus::itemNotFound) return CloudError(kKeyMissing, result.status);
    return CloudError(kKeyReadFailed, result.status);
}

inline QString newConnectionID() { return UUID::random().toString(); }


} // namespace aicloud
} // namespace tavelo
