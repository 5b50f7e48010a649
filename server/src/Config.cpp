#include "Config.h"

#include "JsonUtil.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tavelo::cloud {

namespace {

std::string xdg(const char* variable, const char* fallback) {
    if (const char* value = std::getenv(variable); value && *value) return std::string(value) + "/tavelo-cloud";
    const char* home = std::getenv("HOME");
    return std::string(home && *home ? home : "/tmp") + "/" + fallback + "/tavelo-cloud";
}

// "HOST:PORT", "[v6]:PORT" or "HOST" (the default port).
bool parseListen(const std::string& text, Config& config) {
    std::string host = text;
    std::string port;
    if (text.starts_with("[")) {
        const auto close = text.find(']');
        if (close == std::string::npos) return false;
        host = text.substr(1, close - 1);
        if (close + 1 < text.size()) {
            if (text[close + 1] != ':') return false;
            port = text.substr(close + 2);
        }
    } else if (const auto colon = text.rfind(':'); colon != std::string::npos) {
        host = text.substr(0, colon);
        port = text.substr(colon + 1);
    }
    if (host.empty()) return false;
    if (!port.empty()) {
        char* end = nullptr;
        const long value = std::strtol(port.c_str(), &end, 10);
        if (*end || value < 0 || value > 65535) return false;
        config.listenPort = static_cast<std::uint16_t>(value);
    }
    config.listenHost = host;
    return true;
}

std::optional<std::string> applyFile(const std::string& path, Config& c) {
    std::ifstream in(path);
    if (!in) return "cannot read the configuration file " + path;
    std::stringstream text;
    text << in.rdbuf();
    const auto o = json::parseObject(text.str());
    if (!o) return "the configuration file " + path + " is not a JSON object";
    if (auto v = json::string(*o, "listen"); v && !parseListen(*v, c)) return "bad \"listen\" in " + path;
    if (auto v = json::string(*o, "database")) c.database = *v;
    if (auto v = json::string(*o, "ownerFile")) c.ownerFile = *v;
    if (auto v = json::string(*o, "mailSpool")) c.mailSpool = *v;
    if (auto v = json::string(*o, "publicURL")) c.publicURL = *v;
    if (auto v = json::string(*o, "tlsCertificate")) c.tlsCertificate = *v;
    if (auto v = json::string(*o, "tlsKey")) c.tlsKey = *v;
    if (auto v = json::boolean(*o, "behindTLSProxy")) c.behindTLSProxy = *v;
    if (auto v = json::boolean(*o, "allowSignUp")) c.allowSignUp = *v;
    if (auto v = json::number(*o, "threads")) c.threads = static_cast<int>(*v);
    if (auto v = json::number(*o, "readTimeoutSeconds")) c.readTimeoutSeconds = *v;
    if (auto v = json::number(*o, "refreshGraceSeconds")) c.refreshGraceSeconds = *v;
    if (auto v = json::number(*o, "schedulerIntervalSeconds")) c.schedulerIntervalSeconds = *v;
    if (auto v = json::number(*o, "runAttempts")) c.runAttempts = static_cast<int>(*v);
    if (auto v = json::number(*o, "retryDelaySeconds")) c.retryDelaySeconds = *v;
    if (auto v = json::string(*o, "logLevel")) c.logLevel = *v;
    if (auto v = json::string(*o, "smtpURL")) c.smtpURL = *v;
    if (auto v = json::string(*o, "mailFrom")) c.mailFrom = *v;
    if (const auto* p = o->if_contains("provider"); p && p->is_object()) {
        const auto& provider = p->as_object();
        if (auto v = json::string(provider, "baseURL")) c.provider.baseURL = *v;
        if (auto v = json::string(provider, "model")) c.provider.model = *v;
        if (auto v = json::string(provider, "apiKey")) c.provider.apiKey = *v;
        if (auto v = json::number(provider, "timeoutSeconds")) c.provider.timeoutSeconds = *v;
    }
    return std::nullopt;
}

bool toNumber(const std::string& text, double& out) {
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return !text.empty() && !*end;
}

} // namespace

std::string dataDirectory() { return xdg("XDG_DATA_HOME", ".local/share"); }
std::string configDirectory() { return xdg("XDG_CONFIG_HOME", ".config"); }
std::string stateDirectory() { return xdg("XDG_STATE_HOME", ".local/state"); }

bool isLoopbackHost(const std::string& host) {
    return host == "localhost" || host == "::1" || host.starts_with("127.");
}

std::string Config::databaseURL() const {
    return database.empty() ? dataDirectory() + "/tavelo-cloud.sqlite3" : database;
}

std::string Config::ownerFilePath() const { return ownerFile.empty() ? configDirectory() + "/owner.json" : ownerFile; }

std::string Config::mailSpoolPath() const { return mailSpool.empty() ? dataDirectory() + "/mail-spool.txt" : mailSpool; }

std::string Config::endpoint(std::uint16_t port) const {
    std::string host = listenHost;
    if (host == "0.0.0.0" || host == "::" || host.empty()) host = "127.0.0.1";
    if (host.find(':') != std::string::npos) host = "[" + host + "]";
    return std::string(usesTLS() ? "https://" : "http://") + host + ":" + std::to_string(port);
}

std::optional<std::string> Config::problem() const {
    if (!isLoopbackHost(listenHost) && !usesTLS() && !behindTLSProxy)
        return "refusing to listen on " + listenHost +
               " without TLS: give --tls-cert and --tls-key, or --behind-tls-proxy when a TLS proxy sits in front";
    if (tlsCertificate.empty() != tlsKey.empty()) return "--tls-cert and --tls-key go together";
    if (runAttempts < 1) return "runAttempts must be at least 1";
    if (provider.baseURL.empty() != provider.model.empty())
        return "the AI provider needs both a base URL and a model";
    return std::nullopt;
}

ParsedArguments parseArguments(const std::vector<std::string>& args) {
    ParsedArguments parsed;
    Config& c = parsed.config;
    // The file first, so that flags override it wherever they stand.
    for (std::size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == "--config") {
            if (auto error = applyFile(args[i + 1], c)) {
                parsed.error = error;
                return parsed;
            }
        }
    }
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= args.size()) {
                parsed.error = a + " needs a value";
                return false;
            }
            out = args[++i];
            return true;
        };
        std::string v;
        double number = 0;
        if (a == "--help" || a == "-h") {
            parsed.showHelp = true;
        } else if (a == "--config") {
            ++i;
        } else if (a == "--listen") {
            if (!value(v)) return parsed;
            if (!parseListen(v, c)) {
                parsed.error = "bad --listen value " + v + " (HOST:PORT)";
                return parsed;
            }
        } else if (a == "--database") {
            if (!value(c.database)) return parsed;
        } else if (a == "--owner-file") {
            if (!value(c.ownerFile)) return parsed;
        } else if (a == "--mail-spool") {
            if (!value(c.mailSpool)) return parsed;
        } else if (a == "--public-url") {
            if (!value(c.publicURL)) return parsed;
        } else if (a == "--tls-cert") {
            if (!value(c.tlsCertificate)) return parsed;
        } else if (a == "--tls-key") {
            if (!value(c.tlsKey)) return parsed;
        } else if (a == "--behind-tls-proxy") {
            c.behindTLSProxy = true;
        } else if (a == "--no-sign-up") {
            c.allowSignUp = false;
        } else if (a == "--reset-owner-key") {
            c.resetOwnerKey = true;
        } else if (a == "--ai-base-url") {
            if (!value(c.provider.baseURL)) return parsed;
        } else if (a == "--ai-model") {
            if (!value(c.provider.model)) return parsed;
        } else if (a == "--ai-key") {
            if (!value(c.provider.apiKey)) return parsed;
        } else if (a == "--smtp") {
            if (!value(c.smtpURL)) return parsed;
        } else if (a == "--mail-from") {
            if (!value(c.mailFrom)) return parsed;
        } else if (a == "--log-level") {
            if (!value(c.logLevel)) return parsed;
        } else if (a == "--threads" || a == "--refresh-grace" || a == "--scheduler-interval" || a == "--run-attempts" ||
                   a == "--retry-delay" || a == "--ai-timeout" || a == "--read-timeout") {
            if (!value(v)) return parsed;
            if (!toNumber(v, number) || number < 0) {
                parsed.error = "bad value for " + a + ": " + v;
                return parsed;
            }
            if (a == "--threads") c.threads = static_cast<int>(number);
            else if (a == "--refresh-grace") c.refreshGraceSeconds = number;
            else if (a == "--scheduler-interval") c.schedulerIntervalSeconds = number;
            else if (a == "--run-attempts") c.runAttempts = static_cast<int>(number);
            else if (a == "--retry-delay") c.retryDelaySeconds = number;
            else if (a == "--read-timeout") c.readTimeoutSeconds = number;
            else c.provider.timeoutSeconds = number;
        } else {
            parsed.error = "unknown option " + a + " (see --help)";
            return parsed;
        }
    }
    if (const char* key = std::getenv("TAVELO_CLOUD_AI_KEY"); key && *key && c.provider.apiKey.empty())
        c.provider.apiKey = key;
    return parsed;
}

std::string helpText() {
    return R"(tavelo-cloud: the Tavelo cloud server (accounts, AI schedules and their runs).

Usage: tavelo-cloud [options]

  --listen HOST:PORT        address to listen on (default 127.0.0.1:47615)
  --database URL            SQLite file path, or postgresql://user@host/db
                            (default $XDG_DATA_HOME/tavelo-cloud/tavelo-cloud.sqlite3)
  --config FILE             JSON file with any of the settings below; flags win
  --owner-file FILE         where the owner connection key is written at first start
                            (default $XDG_CONFIG_HOME/tavelo-cloud/owner.json)
  --reset-owner-key         make a new owner connection key and write the owner file again
  --tls-cert FILE --tls-key FILE
                            serve HTTPS with this PEM certificate chain and key
  --behind-tls-proxy        allow a non-loopback address without TLS (a TLS proxy is in front)
  --public-url URL          base URL for links in mails (default: the listen address)
  --no-sign-up              refuse new accounts (existing ones keep working)
  --mail-spool FILE         mails go here (default $XDG_DATA_HOME/tavelo-cloud/mail-spool.txt)
  --smtp URL                plain SMTP relay, smtp://HOST:PORT, no authentication (mails
                            are spooled when absent or when the relay refuses)
  --mail-from ADDRESS       sender of the mails (default tavelo-cloud@<host name>)
  --ai-base-url URL         OpenAI-compatible API base, e.g. https://api.openai.com/v1
  --ai-model NAME           model for scheduled runs
  --ai-key KEY              API key (or the environment variable TAVELO_CLOUD_AI_KEY)
  --ai-timeout SECONDS      limit of one provider call (default 120)
  --run-attempts N          attempts of a failing run before it fails (default 3)
  --retry-delay SECONDS     first retry delay, doubled each time (default 30)
  --scheduler-interval S    how often due runs are looked for (default 1)
  --refresh-grace SECONDS   how long a rotated refresh token stays valid (default 60)
  --threads N               worker threads (default: one per core)
  --read-timeout SECONDS    a request must arrive within this (default 20); slow clients are cut off
  --log-level LEVEL         debug, info, warning or error (default info)
  --help                    this text

Configuration file keys: listen, database, ownerFile, mailSpool, publicURL, tlsCertificate,
tlsKey, behindTLSProxy, allowSignUp, threads, readTimeoutSeconds, refreshGraceSeconds, schedulerIntervalSeconds,
runAttempts, retryDelaySeconds, logLevel, smtpURL, mailFrom, provider {baseURL, model, apiKey, timeoutSeconds}.
)";
}

} // namespace tavelo::cloud
