#pragma once

// Test helpers without Qt: the real tavelo-cloud process on a free loopback
// port with its own XDG folders, a blocking HTTP client on raw sockets, and a
// stand-in for an OpenAI-compatible provider.

#include <sys/types.h>

#include <boost/json/object.hpp>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tavelo::cloud::testing {

// A fresh directory below /tmp, removed at destruction.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// A loopback port that nothing listens on.
std::uint16_t freePort();
// A connection to 127.0.0.1:`port`, or -1.
int connectTo(std::uint16_t port);
// One HTTP message from `fd`: up to the end of its Content-Length body, or
// whatever came before the peer closed or the time ran out.
std::string readMessage(int fd, int timeoutMilliseconds);
// The whole file ("" when it cannot be read).
std::string readFile(const std::string& path);
// `text` as a JSON object; an empty one when it is not a JSON object.
boost::json::object jsonObject(const std::string& text);

struct HttpResult {
    int status = 0; // 0: no reply (connection closed or timed out)
    std::string body;
    std::string contentType;
};

// One request on a new connection ("Connection: close").
HttpResult httpRequest(std::uint16_t port, const std::string& method, const std::string& target,
                       const std::string& body = {}, const std::vector<std::pair<std::string, std::string>>& headers = {},
                       int timeoutMilliseconds = 10000);
// Sends `raw` bytes as they are and reads the reply.
HttpResult rawRequest(std::uint16_t port, const std::string& raw, int timeoutMilliseconds = 10000);

class ServerProcess {
public:
    // `arguments` are added to "--listen 127.0.0.1:<port>". The data lives
    // in `home` (a new temporary directory when empty).
    explicit ServerProcess(std::vector<std::string> arguments = {}, std::string home = {});
    ~ServerProcess();

    void start();
    // SIGTERM and wait; gives the exit status.
    int stop();
    void kill9();
    // Sends `signal` without waiting.
    void signal(int signal);
    // Waits for the process to end; gives its exit status.
    int wait();

    std::uint16_t port() const { return port_; }
    std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port_); }
    const std::string& home() const { return home_; }
    std::string ownerFile() const { return home_ + "/config/tavelo-cloud/owner.json"; }
    std::string ownerKey() const;
    std::string mailSpool() const { return home_ + "/data/tavelo-cloud/mail-spool.txt"; }
    std::string log() const;

    HttpResult get(const std::string& target, const std::string& token = {}) const;
    HttpResult send(const std::string& method, const std::string& target, const std::string& body,
                    const std::string& token = {}) const;

private:
    std::vector<std::string> arguments_;
    std::optional<TemporaryDirectory> ownedHome_;
    std::string home_;
    std::uint16_t port_ = 0;
    pid_t pid_ = -1;
};

// An OpenAI-compatible chat-completions stand-in on 127.0.0.1, served by the
// project's own HTTP server. Each request gets `reply(body)` = (status, body,
// delay in milliseconds); a delay holds only its own connection.
class FakeProvider {
public:
    struct Reply {
        int status = 200;
        std::string body;
        int delayMilliseconds = 0;
    };
    using Handler = std::function<Reply(const std::string& body)>;

    explicit FakeProvider(Handler handler);
    ~FakeProvider();
    std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_) + "/v1"; }
    int requestCount() const;
    std::vector<std::string> bodies() const;

    static Reply completion(const std::string& text);

private:
    struct Service;
    std::unique_ptr<Service> service_;
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::vector<std::string> bodies_;
};

// The PostgreSQL URL pattern of the test cluster ("{db}" stands for the
// database name), when the tests run against one; see with-postgres.
std::optional<std::string> testPostgresURL();
// A new empty database in the test cluster; gives its URL.
std::string createTestDatabase();

// Polls `condition` every 20 ms for up to `milliseconds`.
bool eventually(const std::function<bool()>& condition, int milliseconds = 10000);

} // namespace tavelo::cloud::testing
