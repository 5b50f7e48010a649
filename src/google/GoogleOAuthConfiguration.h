#pragma once

#include "support/Error.h"

#include <QString>

namespace tavelo {

class GoogleOAuthConfigurationError final : public Error {
public:
    enum class Kind { invalidConfiguration };
    std::optional<QString> errorDescription() const override {
        return QStringLiteral("The Google OAuth configuration is invalid.");
    }
    const char* domain() const override { return "GoogleOAuthConfigurationError"; }
};

// The OAuth client of the user's own Google Cloud project, read from the
// "google-oauth.json" that the user places in the workspace folder. The
// program never writes the file.
struct GoogleOAuthConfiguration {
    QString clientID;
    QString clientSecret;

    // The file must hold a JSON object with exactly the keys "client_id" and
    // "client_secret": the client id must end in Google's client suffix and
    // neither value may carry surrounding whitespace. Every failure is the
    // one GoogleOAuthConfigurationError; the parser's own message is never
    // shown.
    static GoogleOAuthConfiguration load(const QString& path);

    bool operator==(const GoogleOAuthConfiguration&) const = default;
};

} // namespace tavelo
