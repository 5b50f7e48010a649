#pragma once

// Shared pieces of the cloud tests: an in-memory secret store that can be
// told to fail, and a fixture with a private server, a hosted cloud and an
// identity service, each a real HTTP server on 127.0.0.1.

#include "ai/AICloudStore.h"
#include "support/LocalHttpServer.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <utility>

namespace tavelo::testing {

class MemorySecretStore final : public SecretStore {
public:
    QCoro::Task<SecretReadResult> read(QString service, QString account) override {
        auto it = items.find({service, account});
        if (readStatus || it == items.end()) co_return SecretReadResult{readStatus.value_or(SecretStatus::itemNotFound), {}};
        co_return SecretReadResult{SecretStatus::success, it->second};
    }
    QCoro::Task<std::int32_t> save(QString service, QString account, QByteArray data) override {
        if (saveStatus) co_return *saveStatus;
        items[{service, account}] = data;
        co_return SecretStatus::success;
    }
    QCoro::Task<std::int32_t> remove(QString service, QString account) override {
        co_return items.erase({service, account}) ? SecretStatus::success : SecretStatus::itemNotFound;
    }
    std::optional<QByteArray> item(const QString& account) const {
        auto it = items.find({QString::fromLatin1(AICloudStore::kKeychainService), account});
        return it == items.end() ? std::nullopt : std::optional(it->second);
    }

    std::map<std::pair<QString, QString>, QByteArray> items;
    std::optional<std::int32_t> readStatus, saveStatus;
};

inline const QString kOwnerKey = QStringLiteral("owner-key-0123456789abcdefghijklmnop"); // 36 characters

// A sleep that ends at once (or with the cancellation).
inline SleepFunction instantSleep() {
    return [](double, std::stop_token stop) -> QCoro::Task<void> {
        checkCancellation(stop);
        co_return;
    };
}

// What a store is built from: settings and caches in a temporary folder, the
// in-memory keychain and the real network.
struct CloudStoreParts {
    void pointHostedAccountAt(const QString& cloud, const QString& toolkit, const QString& secureToken) {
        defaults->setString(QStringLiteral("aiCloudHostedEndpoint"), cloud);
        defaults->setString(QStringLiteral("aiCloudIdentityToolkitURL"), toolkit);
        defaults->setString(QStringLiteral("aiCloudSecureTokenURL"), secureToken);
    }
    std::unique_ptr<AICloudStore> storeWith(Clock now, SleepFunction sleep) {
        return std::make_unique<AICloudStore>(AICloudStore::Dependencies{
            defaults, secrets, transport, directory.filePath(QStringLiteral("cache")), std::move(now), std::move(sleep), {}});
    }

    QTemporaryDir directory;
    std::shared_ptr<SettingsDefaults> defaults =
        std::make_shared<SettingsDefaults>(directory.filePath(QStringLiteral("defaults.ini")));
    std::shared_ptr<MemorySecretStore> secrets = std::make_shared<MemorySecretStore>();
    std::shared_ptr<NetworkHTTPTransport> transport = std::make_shared<NetworkHTTPTransport>();
};

class CloudStoreTest : public ::testing::Test, protected CloudStoreParts {
protected:
    CloudStoreTest() {
        pointHostedAccountAt(hosted.baseUrl(), identity.baseUrl(), identity.baseUrl() + QStringLiteral("/"));
        routeDefaults();
    }

    // A private server, a hosted cloud and an identity service that all say yes.
    void routeDefaults() {
        privateServer.route("GET", "/v1/session", CannedResponse::json(200, R"({"userID":"owner","kind":"owner"})"));
        hosted.route("GET", "/v1/config", CannedResponse::json(200, R"({"apiKey":"API-KEY"})"));
        hosted.route("GET", "/v1/session",
                     CannedResponse::json(200, R"({"userID":"user-1","email":"a@example.jp","kind":"identity"})"));
        identity.route("POST", "/v1/accounts:signInWithPassword",
                       CannedResponse::json(200, R"({"idToken":"ID-1","refreshToken":"REFRESH-1"})"));
        identity.route("POST", "/v1/token", CannedResponse::json(200, R"({"id_token":"ID-2","refresh_token":"REFRESH-2"})"));
    }

    std::unique_ptr<AICloudStore> makeStore() { return storeWith([this] { return now; }, instantSleep()); }

    // A store signed in to the private server.
    std::unique_ptr<AICloudStore> connectedStore() {
        auto store = makeStore();
        syncWait(store->connectPrivateServer(privateServer.baseUrl(), kOwnerKey));
        return store;
    }

    // A new store that restored the stored session, as at a start.
    std::unique_ptr<AICloudStore> restored() {
        auto store = makeStore();
        syncWait(store->restoreSession());
        return store;
    }

    LocalHttpServer privateServer, hosted, identity;
    Date now = Date::fromUnixSeconds(1'767'225'600); // 2026-01-01T00:00:00Z
};

// Runs `task` and returns the failure it ended with; fails the test when it
// succeeded.
template <class T>
std::exception_ptr failureOf(QCoro::Task<T>&& task) {
    try {
        syncWait(task);
    } catch (...) {
        return std::current_exception();
    }
    ADD_FAILURE() << "the operation succeeded";
    return nullptr;
}

inline QString messageOf(std::exception_ptr failure) { return failure ? localizedDescription(failure) : QString(); }

// The bearer of the last request to `path`.
inline std::optional<QByteArray> bearerAt(const LocalHttpServer& server, const QByteArray& method, const QByteArray& path) {
    return server.last(method, path).header("authorization");
}

} // namespace tavelo::testing
