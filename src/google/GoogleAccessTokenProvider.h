#pragma once

#include "google/GoogleCredential.h"
#include "support/Async.h"

#include <QCoro/QCoroTask>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>

namespace tavelo {

class GoogleOAuthClient;

class GoogleAccessTokenProviderError final : public Error {
public:
    enum class Kind { reconnectRequired, credentialUnavailable, refreshFailed, persistenceFailed };
    explicit GoogleAccessTokenProviderError(Kind kind) : kind_(kind) {}
    Kind kind() const { return kind_; }
    std::optional<QString> errorDescription() const override;
    const char* domain() const override { return "GoogleAccessTokenProviderError"; }
    int code() const override { return static_cast<int>(kind_); }

private:
    Kind kind_;
};

// The only source of access tokens for an account's Calendar requests.
class GoogleAccessTokenProviding {
public:
    virtual ~GoogleAccessTokenProviding() = default;
    // Without an argument: a token with at least five minutes left. With the
    // token the server just refused: a fresh one, unless the credential has
    // moved on already.
    virtual QCoro::Task<QString> accessToken(std::optional<QString> rejectedAccessToken = std::nullopt,
                                             std::stop_token stop = {}) = 0;
};

// One refresh in the air and everyone who waits for it. Each waiter may be
// cancelled alone; the outcome, once set, goes to every remaining waiter.
class GoogleCredentialRefreshFlight final : public std::enable_shared_from_this<GoogleCredentialRefreshFlight> {
public:
    struct Outcome {
        std::optional<GoogleCredential> credential;
        std::exception_ptr error;
    };

    GoogleCredentialRefreshFlight(std::function<void(int)> waiterDidJoin, std::function<void()> waiterDidCancel);

    QCoro::Task<GoogleCredential> value(std::stop_token stop = {});
    void finish(Outcome outcome);

    std::size_t waiterCount() const { return waiters_.size(); }

private:
    void registerWaiter(const UUID& id, Continuation<Outcome> waiter);
    void cancelWaiter(const UUID& id);

    std::function<void(int)> waiterDidJoin_;
    std::function<void()> waiterDidCancel_;
    std::optional<Outcome> result_;
    std::map<UUID, Continuation<Outcome>> waiters_;
    int joinedCount_ = 0;
};

// Hands out an account's access tokens and refreshes them in a single
// flight: any number of callers that find the token stale share one refresh,
// whose result is stored before anyone gets it. Main thread only.
class GoogleAccessTokenProvider final : public GoogleAccessTokenProviding,
                                        public std::enable_shared_from_this<GoogleAccessTokenProvider> {
public:
    using LoadCredential = std::function<QCoro::Task<std::optional<GoogleCredential>>()>;
    using RefreshCredential = std::function<QCoro::Task<GoogleCredential>(GoogleCredential)>;
    using SaveCredential = std::function<QCoro::Task<void>(GoogleCredential)>;

    struct Functions {
        LoadCredential loadCredential;
        RefreshCredential refreshCredential;
        SaveCredential saveCredential;
        Clock now = systemClock();
        std::function<void(int)> refreshWaiterDidJoin = [](int) {};
        std::function<void()> refreshWaiterDidCancel = [] {};
    };

    // Tokens with less than this left are refreshed first.
    static constexpr double kMinimumLifetime = 300.0;

    static std::shared_ptr<GoogleAccessTokenProvider> make(Functions functions);
    static std::shared_ptr<GoogleAccessTokenProvider> make(QString subject, std::shared_ptr<GoogleCredentialStore> store,
                                                           std::shared_ptr<const GoogleOAuthClient> client,
                                                           Clock now = systemClock());

    QCoro::Task<QString> accessToken(std::optional<QString> rejectedAccessToken = std::nullopt,
                                     std::stop_token stop = {}) override;

    const std::optional<GoogleCredential>& cachedCredential() const { return cachedCredential_; }
    bool hasRefreshFlight() const { return refreshFlight_ != nullptr; }

private:
    explicit GoogleAccessTokenProvider(Functions functions) : functions_(std::move(functions)) {}

    QCoro::Task<GoogleCredential> credential();
    QCoro::Task<GoogleCredential> refreshedCredential(GoogleCredential from, std::stop_token stop);
    QCoro::Task<GoogleCredential> result(std::shared_ptr<GoogleCredentialRefreshFlight> flight,
                                         std::uint64_t generation, std::stop_token stop);

    Functions functions_;
    std::optional<GoogleCredential> cachedCredential_;
    std::shared_ptr<GoogleCredentialRefreshFlight> refreshFlight_;
    std::uint64_t refreshGeneration_ = 0;
};

} // namespace tavelo
