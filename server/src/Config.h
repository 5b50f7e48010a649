#pragma once

// The server's settings: defaults, then a JSON configuration file, then the
// command line.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavelo::cloud {

struct ProviderConfig {
    std::string baseURL; // OpenAI-compatible, e.g. "https://api.openai.com/v1"
    std::string model;
    std::string apiKey;
    double timeoutSeconds = 120;

    bool configured() const { return !baseURL.empty() && !model.empty(); }
};

struct Config {
    static constexpr std::uint16_t kDefaultPort = 47615;

    std::string listenHost = "127.0.0.1";
    std::uint16_t listenPort = kDefaultPort;
    std::string database;  // empty: the default SQLite file
    std::string ownerFile; // empty: the default owner.json
    std::string mailSpool; // empty: beside the default database
    std::string publicURL; // base of links in mails; empty: the listen address
    std::string tlsCertificate;
    std::string tlsKey;
    bool behindTLSProxy = false;
    bool allowSignUp = true;
    int threads = 0; // 0: one per core
    double readTimeoutSeconds = 20; // a whole request must arrive within this
    double refreshGraceSeconds = 60;
    double schedulerIntervalSeconds = 1;
    int runAttempts = 3;
    double retryDelaySeconds = 30;
    bool resetOwnerKey = false;
    std::string logLevel = "info";
    ProviderConfig provider;
    std::string smtpURL;  // "smtp://host:port": a plain relay without authentication
    std::string mailFrom; // empty: tavelo-cloud@<host name>

    std::string databaseURL() const;
    std::string ownerFilePath() const;
    std::string mailSpoolPath() const;
    bool usesTLS() const { return !tlsCertificate.empty() && !tlsKey.empty(); }
    // "http://127.0.0.1:47615"; a wildcard host reads as the loopback.
    std::string endpoint(std::uint16_t port) const;
    // Why the settings cannot run; nothing when they can.
    std::optional<std::string> problem() const;
};

struct ParsedArguments {
    Config config;
    bool showHelp = false;
    std::optional<std::string> error;
};

ParsedArguments parseArguments(const std::vector<std::string>& arguments);
std::string helpText();

// $XDG_DATA_HOME (or ~/.local/share) + "/tavelo-cloud", and so on.
std::string dataDirectory();
std::string configDirectory();
std::string stateDirectory();

bool isLoopbackHost(const std::string& host);

} // namespace tavelo::cloud
