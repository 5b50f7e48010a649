#include "google/GoogleOAuthConfiguration.h"

#include "support/JsonReader.h"

#include <QFile>

namespace tavelo {

namespace {

constexpr std::string_view kClientIDSuffix = ".apps.googleusercontent.com";

bool isTrimmedAndNotEmpty(const QString& value) { return !value.isEmpty() && value.trimmed() == value; }

} // namespace

GoogleOAuthConfiguration GoogleOAuthConfiguration::load(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) throw GoogleOAuthConfigurationError();
    const QByteArray data = file.readAll();
    if (file.error() != QFileDevice::NoError) throw GoogleOAuthConfigurationError();

    try {
        JsonDocumentParser parser;
        JsonPath root;
        const JsonObject object = JsonValue(parser.parse(std::string_view(data.constData(), data.size())), &root).object();
        // size() counts repeated keys too, so a repeated key cannot hide an
        // extra one.
        if (object.size() != 2 || !object.find("client_id") || !object.find("client_secret"))
            throw GoogleOAuthConfigurationError();

        const auto clientID = required<QString>(object, "client_id");
        const auto clientSecret = required<QString>(object, "client_secret");
        if (!isTrimmedAndNotEmpty(clientID) || !clientID.endsWith(QLatin1String(kClientIDSuffix.data(), kClientIDSuffix.size())) ||
            !isTrimmedAndNotEmpty(clientSecret))
            throw GoogleOAuthConfigurationError();
        return GoogleOAuthConfiguration{clientID, clientSecret};
    } catch (const JsonDecodingError&) {
        throw GoogleOAuthConfigurationError();
    }
}

} // namespace tavelo
