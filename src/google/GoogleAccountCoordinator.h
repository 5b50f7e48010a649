#pragma once

#include "google/GoogleOAuth.h"

#include <QCoro/QCoroTask>
#include <QUrl>

#include <functional>
#include <memory>
#include <stop_token>

namespace tavelo {

class GoogleCredentialStore;
class GoogleOAuthClient;
class OAuthCallbackReceiving;

class GoogleAccountCoordinatorError final : public Error {
public:
    enum class Kind { accountMismatch, browserUnavailable, missingRefreshToken };
    explicit GoogleAccountCoordinatorError(Kind kind) : kind_(kind) {}
    Kind kind() const { return kind_; }
    std::optional<QString> errorDescription() const override;
    const char* domain() const override { return "GoogleAccountCoordinatorError"; }
    int code() const override { return static_cast<int>(kind_); }

private:
    Kind kind_;
};

// Opens the consent page in a browser; true when the system accepted it.
class AuthorizationURLOpening {
public:
    virtual ~AuthorizationURLOpening() = default;
    virtual QCoro::Task<bool> open(QUrl url) = 0;
};

// The user's default browser, through QDesktopServices. Needs a
// QGuiApplication; main thread only.
class DesktopAuthorizationURLOpener final : public AuthorizationURLOpening {
public:
    QCoro::Task<bool> open(QUrl url) override;
};

// Runs one browser sign-in: receiver, consent page, redirect, code exchange,
// identity, credential. Returns who signed in; the calendar state is not
// touched here. Keeps no state between calls.
class GoogleAccountCoordinator {
public:
    using ReceiverFactory = std::function<std::shared_ptr<OAuthCallbackReceiving>()>;

    struct Dependencies {
        std::shared_ptr<const GoogleOAuthClient> oauthClient;
        std::shared_ptr<GoogleCredentialStore> credentialStore;
        ReceiverFactory receiverFactory = defaultReceiverFactory();
        std::shared_ptr<AuthorizationURLOpening> authorizationOpener;
        std::function<PKCEPair()> makePKCE = [] { return PKCEGenerator::make(); };
        std::function<QString()> makeState = [] { return PKCEGenerator::make().verifier; };
    };

    // A LoopbackOAuthReceiver on 127.0.0.1 with the 300-second limit.
    static ReceiverFactory defaultReceiverFactory();

    explicit GoogleAccountCoordinator(Dependencies dependencies);

    QCoro::Task<GoogleIdentity> connect(std::stop_token stop = {}) const;
    // Signs in again to the account of `subject`; another account in the
    // browser fails and leaves the stored credential as it was.
    QCoro::Task<GoogleIdentity> reconnect(QString subject, std::stop_token stop = {}) const;
    // Forgets the stored credential. Nothing is sent to Google.
    QCoro::Task<void> disconnect(QString subject) const;

private:
    static QCoro::Task<GoogleIdentity> authorize(std::shared_ptr<const Dependencies> dependencies,
                                                 std::optional<QString> expectedSubject,
                                                 std::optional<QString> existingRefreshToken, std::stop_token stop);

    std::shared_ptr<const Dependencies> dependencies_;
};

} // namespace tavelo
