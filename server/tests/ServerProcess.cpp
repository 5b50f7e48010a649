#include "ServerProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <libpq-fe.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#ifndef TAVELO_CLOUD_BINARY
#error "TAVELO_CLOUD_BINARY must name the server executable"
#endif

namespace tavelo::cloud::testing {

TemporaryDirectory::TemporaryDirectory() {
    char pattern[] = "/tmp/tavelo-cloud-test-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::uint16_t freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

namespace {

int connectTo(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

HttpResult parseReply(const std::string& text) {
    HttpResult result;
    const auto headerEnd = text.find("\r\n\r\n");
    if (headerEnd == std::string::npos || !text.starts_with("HTTP/1.")) return result;
    result.status = std::atoi(text.c_str() + 9);
    std::istringstream lines(text.substr(0, headerEnd));
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string name = line.substr(0, colon);
        for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        std::string value = line.substr(colon + 1);
        while (!value.empty() && value.front() == ' ') value.erase(0, 1);
        result.headers[name] = value;
    }
    result.body = text.substr(headerEnd + 4);
    if (auto it = result.headers.find("content-length"); it != result.headers.end())
        result.body.resize(std::min<std::size_t>(result.body.size(), std::stoul(it->second)));
    return result;
}

} // namespace

HttpResult rawRequest(std::uint16_t port, const std::string& raw, int timeoutMilliseconds) {
    const int fd = connectTo(port);
    if (fd < 0) return {};
    std::size_t sent = 0;
    while (sent < raw.size()) {
        const ssize_t n = ::send(fd, raw.data() + sent, raw.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break; // the server may refuse early and close
        sent += static_cast<std::size_t>(n);
    }
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
    char buffer[65536];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) break;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left)) <= 0) break;
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        text.append(buffer, static_cast<std::size_t>(n));
        const auto parsed = parseReply(text);
        if (parsed.status && parsed.headers.count("content-length") &&
            parsed.body.size() >= std::stoul(parsed.headers.at("content-length")))
            break;
    }
    ::close(fd);
    return parseReply(text);
}

HttpResult httpRequest(std::uint16_t port, const std::string& method, const std::string& target, const std::string& body,
                       const std::vector<std::pair<std::string, std::string>>& headers, int timeoutMilliseconds) {
    std::string raw = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
    for (const auto& [name, value] : headers) raw += name + ": " + value + "\r\n";
    if (!body.empty() || method == "POST" || method == "PUT") raw += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    raw += "\r\n" + body;
    return rawRequest(port, raw, timeoutMilliseconds);
}

bool eventually(const std::function<bool()>& condition, int milliseconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
}

ServerProcess::ServerProcess(std::vector<std::string> arguments, std::string home) : arguments_(std::move(arguments)) {
    if (home.empty()) {
        ownedHome_.emplace();
        home_ = ownedHome_->path();
    } else {
        home_ = std::move(home);
    }
    port_ = freePort();
    start();
}

ServerProcess::~ServerProcess() {
    if (pid_ > 0) stop();
}

std::optional<std::string> testPostgresURL() {
    const char* pattern = std::getenv("TAVELO_CLOUD_TEST_POSTGRES");
    if (!pattern || !*pattern) return std::nullopt;
    return std::string(pattern);
}

std::string createTestDatabase() {
    const auto pattern = testPostgresURL();
    if (!pattern) throw std::runtime_error("TAVELO_CLOUD_TEST_POSTGRES is not set");
    auto url = [&](const std::string& name) {
        std::string text = *pattern;
        text.replace(text.find("{db}"), 4, name);
        return text;
    };
    static std::atomic<int> counter{0};
    const std::string name = "tavelo_test_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
    PGconn* connection = PQconnectdb(url("postgres").c_str());
    if (PQstatus(connection) != CONNECTION_OK) {
        const std::string message = PQerrorMessage(connection);
        PQfinish(connection);
        throw std::runtime_error("cannot reach the test PostgreSQL: " + message);
    }
    PGresult* result = PQexec(connection, ("CREATE DATABASE " + name).c_str());
    const bool created = PQresultStatus(result) == PGRES_COMMAND_OK;
    PQclear(result);
    PQfinish(connection);
    if (!created) throw std::runtime_error("cannot create the test database " + name);
    return url(name);
}

void ServerProcess::start() {
    const std::string logPath = home_ + "/server.log";
    std::vector<std::string> args{TAVELO_CLOUD_BINARY, "--listen", "127.0.0.1:" + std::to_string(port_)};
    if (testPostgresURL()) {
        // Each server's data gets its own database; a restart on the same
        // home finds it again.
        const std::string file = home_ + "/database-url";
        std::ifstream in(file);
        std::string url;
        if (!std::getline(in, url) || url.empty()) {
            url = createTestDatabase();
            std::ofstream(file) << url << "\n";
        }
        args.insert(args.end(), {"--database", url});
    }
    args.insert(args.end(), arguments_.begin(), arguments_.end());
    pid_ = ::fork();
    if (pid_ == 0) {
        ::setenv("XDG_DATA_HOME", (home_ + "/data").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (home_ + "/config").c_str(), 1);
        ::setenv("XDG_STATE_HOME", (home_ + "/state").c_str(), 1);
        const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        ::dup2(log, 2);
        ::dup2(log, 1);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    const bool up = eventually([&] {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return true;
        }
        return httpRequest(port_, "GET", "/healthz", {}, {}, 500).status == 200;
    });
    if (!up || pid_ < 0) throw std::runtime_error("tavelo-cloud did not start:\n" + log());
}

int ServerProcess::stop() {
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void ServerProcess::signal(int signal) {
    if (pid_ > 0) ::kill(pid_, signal);
}

int ServerProcess::wait() {
    if (pid_ <= 0) return -1;
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void ServerProcess::kill9() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
}

std::string ServerProcess::ownerKey() const {
    std::ifstream in(ownerFile());
    std::stringstream text;
    text << in.rdbuf();
    boost::system::error_code ec;
    const auto value = boost::json::parse(text.str(), ec);
    if (ec || !value.is_object() || !value.as_object().contains("connectionKey")) return {};
    return std::string(value.as_object().at("connectionKey").as_string());
}

std::string ServerProcess::log() const {
    std::ifstream in(home_ + "/server.log");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

HttpResult ServerProcess::get(const std::string& target, const std::string& token) const {
    return send("GET", target, {}, token);
}

HttpResult ServerProcess::send(const std::string& method, const std::string& target, const std::string& body,
                               const std::string& token) const {
    std::vector<std::pair<std::string, std::string>> headers{{"Content-Type", "application/json"}};
    if (!token.empty()) headers.emplace_back("Authorization", "Bearer " + token);
    return httpRequest(port_, method, target, body, headers);
}

FakeProvider::FakeProvider(Handler handler) : handler_(std::move(handler)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener_, 64);
    socklen_t length = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

FakeProvider::~FakeProvider() {
    stopping_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    ::close(listener_);
    thread_.join();
    while (active_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

std::vector<std::string> FakeProvider::bodies() const {
    std::lock_guard lock(mutex_);
    return bodies_;
}

FakeProvider::Reply FakeProvider::completion(const std::string& text) {
    boost::json::object message{{"role", "assistant"}, {"content", text}};
    boost::json::object choice{{"index", 0}, {"message", message}, {"finish_reason", "stop"}};
    boost::json::object reply{{"id", "chatcmpl-test"}, {"object", "chat.completion"}, {"choices", boost::json::array{choice}}};
    return Reply{200, boost::json::serialize(reply), 0};
}

void FakeProvider::serve() {
    while (!stopping_) {
        pollfd p{listener_, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        const int fd = ::accept(listener_, nullptr, nullptr);
        if (fd < 0) continue;
        // One connection at a time is enough for the tests; each is answered
        // on its own thread so that a delay does not hold the others.
        ++active_;
        std::thread([this, fd] {
            std::string text;
            char buffer[8192];
            std::size_t expected = std::string::npos;
            while (true) {
                pollfd q{fd, POLLIN, 0};
                if (::poll(&q, 1, 5000) <= 0) break;
                const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
                if (n <= 0) break;
                text.append(buffer, static_cast<std::size_t>(n));
                const auto end = text.find("\r\n\r\n");
                if (end == std::string::npos) continue;
                if (expected == std::string::npos) {
                    std::string lowerText = text.substr(0, end);
                    for (auto& c : lowerText) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                    const auto at = lowerText.find("content-length:");
                    expected = end + 4 + (at == std::string::npos ? 0 : std::stoul(lowerText.substr(at + 15)));
                }
                if (text.size() >= expected) break;
            }
            const auto end = text.find("\r\n\r\n");
            const std::string body = end == std::string::npos ? std::string() : text.substr(end + 4);
            {
                std::lock_guard lock(mutex_);
                bodies_.push_back(body);
            }
            ++requests_;
            const Reply reply = handler_(body);
            if (reply.delayMilliseconds > 0) std::this_thread::sleep_for(std::chrono::milliseconds(reply.delayMilliseconds));
            const std::string raw = "HTTP/1.1 " + std::to_string(reply.status) +
                                    " X\r\nContent-Type: application/json\r\nConnection: close\r\nContent-Length: " +
                                    std::to_string(reply.body.size()) + "\r\n\r\n" + reply.body;
            ::send(fd, raw.data(), raw.size(), MSG_NOSIGNAL);
            ::close(fd);
            --active_;
        }).detach();
    }
}

} // namespace tavelo::cloud::testing
