#include "google/GoogleAccessTokenProvider.h"

#include "google/GoogleLog.h"
#include "google/GoogleOAuthClient.h"

namespace tavelo {

namespace {

using Kind = GoogleAccessTokenProviderError::Kind;

// Cancellation and the provider's own errors pass; anything else becomes
// `fallback`.
std::exception_ptr classified(std::exception_ptr error, Kind fallback) {
    try {
        std::rethrow_exception(error);
    } catch (const CancellationError&) {
        return error;
    } catch (const GoogleAccessTokenProviderError&) {
        return error;
    } catch (const GoogleOAuthClientError& clientError) {
        if (fallback == Kind::refreshFailed && clientError.kind() == GoogleOAuthClientError::Kind::invalidGrant)
            return std::make_exception_ptr(GoogleAccessTokenProviderError(Kind::reconnectRequired));
    } catch (...) {
    }
    return std::make_exception_ptr(GoogleAccessTokenProviderError(fallback));
}

// Refreshes, then stores, then delivers: a new token is never handed out
// before it is safely stored, since the old refresh token may be gone.
QCoro::Task<bool> runFlight(std::shared_ptr<GoogleCredentialRefreshFlight> flight,
                            GoogleAccessTokenProvider::RefreshCredential refresh,
                            GoogleAccessTokenProvider::SaveCredential save, GoogleCredential credential) {
    GoogleCredentialRefreshFlight::Outcome outcome;
    try {
        outcome.credential = co_await refresh(credential);
    } catch (...) {
        outcome.error = classified(std::current_exception(), Kind::refreshFailed);
    }
    if (outcome.credential) {
        try {
            co_await save(*outcome.credential);
        } catch (...) {
            outcome.error = classified(std::current_exception(), Kind::persistenceFailed);
            outcome.credential.reset();
        }
    }
    if (outcome.error) {
        try {
            std::rethrow_exception(outcome.error);
        } catch (const GoogleAccessTokenProviderError& error) {
            qCWarning(googleSyncLog, "Google token refresh failed: %s",
                      qUtf8Printable(error.errorDescription().value_or(QString())));
        } catch (...) {
        }
    }
    flight->finish(std::move(outcome));
    co_return true;
}

} // namespace

std::optional<QString> GoogleAccessTokenProviderError::errorDescription() const {
    switch (kind_) {
    case Kind::reconnectRequired: return QStringLiteral("The Google account must be reconnected.");
    case Kind::credentialUnavailable: return QStringLiteral("The Google account credential could not be loaded.");
    case Kind::refreshFailed: return QStringLiteral("The Google account credential could not be refreshed.");
    case Kind::persistenceFailed: return QStringLiteral("The refreshed Google account credential could not be saved.");
    }
    return std::nullopt;
}

// --- the flight -------------------------------------------------------------

GoogleCredentialRefreshFlight::GoogleCredentialRefreshFlight(std::function<void(int)> waiterDidJoin,
                                                             std::function<void()> waiterDidCancel)
    : waiterDidJoin_(std::move(waiterDidJoin)), waiterDidCancel_(std::move(waiterDidCancel)) {}

QCoro::Task<GoogleCredential> GoogleCredentialRefreshFlight::value(std::stop_token stop) {
    auto self = shared_from_this();
    const UUID id = UUID::random();
    Continuation<Outcome> waiter;
    std::weak_ptr<GoogleCredentialRefreshFlight> weak = self;
    std::stop_callback onStop(stop, [weak, id] {
        postToMainThread([weak, id] {
            if (auto flight = weak.lock()) flight->cancelWaiter(id);
        });
    });
    registerWaiter(id, waiter);
    Outcome outcome = co_await waiter;
    if (outcome.error) std::rethrow_exception(outcome.error);
    co_return *outcome.credential;
}

void GoogleCredentialRefreshFlight::registerWaiter(const UUID& id, Continuation<Outcome> waiter) {
    if (result_) {
        waiter.resume(*result_);
        return;
    }
    waiters_.emplace(id, waiter);
    ++joinedCount_;
    if (waiterDidJoin_) waiterDidJoin_(joinedCount_);
}

void GoogleCredentialRefreshFlight::cancelWaiter(const UUID& id) {
    if (auto it = waiters_.find(id); it != waiters_.end()) {
        auto waiter = it->second;
        waiters_.erase(it);
        waiter.resume(Outcome{std::nullopt, std::make_exception_ptr(CancellationError())});
        if (waiterDidCancel_) waiterDidCancel_();
    }
    // Otherwise the waiter has been served already. A stop request always
    // reaches the flight after the registration: the handler posts to the
    // event loop, and registering happens before the first suspension.
}

void GoogleCredentialRefreshFlight::finish(Outcome outcome) {
    if (result_) return;
    result_ = std::move(outcome);
    for (auto& [id, waiter] : std::exchange(waiters_, {})) waiter.resume(*result_);
}

// --- the provider -----------------------------------------------------------

std::shared_ptr<GoogleAccessTokenProvider> GoogleAccessTokenProvider::make(Functions functions) {
    return std::shared_ptr<GoogleAccessTokenProvider>(new GoogleAccessTokenProvider(std::move(functions)));
}

std::shared_ptr<GoogleAccessTokenProvider> GoogleAccessTokenProvider::make(QString subject,
                                                                           std::shared_ptr<GoogleCredentialStore> store,
                                                                           std::shared_ptr<const GoogleOAuthClient> client,
                                                                           Clock now) {
    Functions functions;
    functions.loadCredential = [store, subject] { return store->load(subject); };
    functions.refreshCredential = [client](GoogleCredential credential) { return client->refresh(std::move(credential)); };
    functions.saveCredential = [store](GoogleCredential credential) { return store->save(std::move(credential)); };
    functions.now = std::move(now);
    return make(std::move(functions));
}

QCoro::Task<QString> GoogleAccessTokenProvider::accessToken(std::optional<QString> rejectedAccessToken,
                                                            std::stop_token stop) {
    auto self = shared_from_this();
    checkCancellation(stop);
    const GoogleCredential current = co_await credential();
    bool mustRefresh = false;
    if (rejectedAccessToken) {
        if (*rejectedAccessToken != current.accessToken) co_return current.accessToken;
        mustRefresh = true;
    } else {
        mustRefresh = current.expiry.secondsSince(functions_.now()) < kMinimumLifetime;
    }
    if (!mustRefresh) co_return current.accessToken;
    const GoogleCredential refreshed = co_await refreshedCredential(current, stop);
    checkCancellation(stop);
    co_return refreshed.accessToken;
}

QCoro::Task<GoogleCredential> GoogleAccessTokenProvider::credential() {
    if (cachedCredential_) co_return GoogleCredential(*cachedCredential_);
    std::optional<GoogleCredential> loaded;
    std::exception_ptr failure;
    try {
        loaded = co_await functions_.loadCredential();
    } catch (...) {
        failure = classified(std::current_exception(), Kind::credentialUnavailable);
    }
    // Another caller may have filled the cache meanwhile; it wins.
    if (cachedCredential_) co_return GoogleCredential(*cachedCredential_);
    if (failure) std::rethrow_exception(failure);
    if (!loaded) throw GoogleAccessTokenProviderError(Kind::reconnectRequired);
    cachedCredential_ = loaded;
    co_return GoogleCredential(*loaded);
}

QCoro::Task<GoogleCredential> GoogleAccessTokenProvider::refreshedCredential(GoogleCredential from,
                                                                             std::stop_token stop) {
    if (!refreshFlight_) {
        ++refreshGeneration_;
        refreshFlight_ = std::make_shared<GoogleCredentialRefreshFlight>(functions_.refreshWaiterDidJoin,
                                                                         functions_.refreshWaiterDidCancel);
        // Unattached: the refresh goes on when the caller who caused it is
        // cancelled.
        BackgroundTask<bool>::start([flight = refreshFlight_, refresh = functions_.refreshCredential,
                                     save = functions_.saveCredential, from](std::stop_token) {
            return runFlight(flight, refresh, save, from);
        });
    }
    co_return co_await result(refreshFlight_, refreshGeneration_, stop);
}

QCoro::Task<GoogleCredential> GoogleAccessTokenProvider::result(std::shared_ptr<GoogleCredentialRefreshFlight> flight,
                                                                std::uint64_t generation, std::stop_token stop) {
    auto self = shared_from_this();
    std::optional<GoogleCredential> credential;
    std::exception_ptr failure;
    try {
        credential = co_await flight->value(stop);
    } catch (...) {
        failure = std::current_exception();
    }
    const bool current = generation == refreshGeneration_;
    if (failure) {
        if (isCancellation(failure)) {
            // Only a flight that itself ended in cancellation is cleared; a
            // cancelled waiter leaves it to the others.
            if (!stop.stop_requested() && current) refreshFlight_.reset();
        } else if (current) {
            refreshFlight_.reset();
        }
        std::rethrow_exception(failure);
    }
    if (current) {
        cachedCredential_ = credential;
        refreshFlight_.reset();
    }
    checkCancellation(stop);
    co_return *credential;
}

} // namespace tavelo
