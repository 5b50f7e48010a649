#pragma once

// A small blocking HTTP(S) client for the AI provider: one request, one
// deadline for the whole exchange, the reply's status and body.

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tavelo::cloud {

struct ParsedURL {
    bool tls = false;
    std::string host;
    std::string port;
    std::string path; // begins with "/"
};

std::optional<ParsedURL> parseURL(const std::string& url);

struct ClientReply {
    int status = 0;
    std::string body;
};

class HttpClientError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Throws HttpClientError on a bad URL, a connection failure or the deadline.
ClientReply httpPost(const std::string& url, const std::vector<std::pair<std::string, std::string>>& headers,
                     const std::string& body, double timeoutSeconds, std::size_t replyLimit = 4 * 1024 * 1024);

} // namespace tavelo::cloud
