#pragma once

#include "google/GoogleOAuthStandIn.h"

#include "google/FixedTokenProvider.h"
#include "google/GoogleCredential.h"
#include "google/GoogleOAuthClient.h"
#include "support/Async.h"
#include "support/HTTPTransport.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <ostream>

inline void PrintTo(const QString& text, std::ostream* os) { *os << '"' << text.toStdString() << '"'; }

namespace tavelo::testing {

inline const QString kClientID = QStringLiteral("1234567890-tavelotest.apps.googleusercontent.com");
inline const QString kClientSecret = QStringLiteral("GOCSPX-test-secret");

// Runs `body` and checks that it throws E with the given kind.
template <class E>
void expectError(const std::function<void()>& body, typename E::Kind kind) {
    try {
        body();
        ADD_FAILURE() << "no error thrown";
    } catch (const E& error) {
        EXPECT_EQ(static_cast<int>(error.kind()), static_cast<int>(kind)) << localizedDescription(error).toStdString();
    } catch (const std::exception& other) {
        ADD_FAILURE() << "unexpected error: " << localizedDescription(other).toStdString();
    }
}

// Plays the browser's part without a browser: loads a page over real HTTP
// and follows redirects itself, keeping the final page.
struct ScriptedBrowser {
    NetworkHTTPTransport transport;
    std::optional<HTTPResponse> lastPage;

    QCoro::Task<bool> open(QUrl url) {
        for (int hop = 0; hop < 5; ++hop) {
            HTTPRequest request;
            request.url = url;
            request.timeout = 10;
            HTTPResponse response;
            try {
                response = co_await transport.send(request);
            } catch (...) {
                co_return false;
            }
            lastPage = response;
            const auto location = response.header("Location");
            if (!response.status || *response.status / 100 != 3 || !location) co_return true;
            url = url.resolved(QUrl::fromEncoded(*location));
        }
        co_return true;
    }
};

// Credentials in memory, with failures on request.
class MemoryCredentialStore final : public GoogleCredentialStore {
public:
    QCoro::Task<std::optional<GoogleCredential>> load(QString subject) override {
        if (failLoad) throw KeychainGoogleCredentialStoreError();
        auto it = items.find(subject);
        co_return it == items.end() ? std::nullopt : std::optional<GoogleCredential>(it->second);
    }
    QCoro::Task<void> save(GoogleCredential credential) override {
        ++saves;
        if (onSave) onSave(credential);
        if (failSave) throw KeychainGoogleCredentialStoreError();
        items[credential.subject] = credential;
        co_return;
    }
    QCoro::Task<void> remove(QString subject) override {
        items.erase(subject);
        co_return;
    }

    std::map<QString, GoogleCredential> items;
    int saves = 0;
    bool failLoad = false;
    bool failSave = false;
    std::function<void(const GoogleCredential&)> onSave;
};

} // namespace tavelo::testing
