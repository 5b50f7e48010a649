#include "ServerProcess.h"

#include "HttpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/beast/http.hpp>
#include <boost/json.hpp>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

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
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

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

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

boost::json::object jsonObject(const std::string& text) {
    boost::system::error_code ec;
    const auto value = boost::json::parse(text, ec);
    return !ec && value.is_object() ? value.as_object() : boost::json::object();
}

namespace {

namespace http = boost::beast::http;
using ReplyParser = http::response_parser<http::string_body>;

// A parser fed with `text`; it is done when `text` holds a whole reply.
std::unique_ptr<ReplyParser> parserOf(const std::string& text) {
    auto parser = std::make_unique<ReplyParser>();
    parser->eager(true);
    boost::system::error_code ignored;
    parser->put(boost::asio::buffer(text), ignored);
    return parser;
}

HttpResult parseReply(const std::string& text) {
    const auto parser = parserOf(text);
    if (!parser->is_done()) return {};
    const auto& reply = parser->get();
    return {static_cast<int>(reply.result_int()), reply.body(), std::string(reply[http::field::content_type])};
}

} // namespace

std::string readMessage(int fd, int timeoutMilliseconds) {
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
    char buffer[65536];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        text.append(buffer, static_cast<std::size_t>(n));
        if (parserOf(text)->is_done()) break;
    }
    return text;
}

HttpResult rawRequest(std::uint16_t port, const std::string& raw, int timeoutMilliseconds) {
    const int fd = connectTo(port);
    if (fd < 0) return {};
    std::size_t sent = 0;
    while (sent < raw.size()) {
        const ssize_t n = ::send(fd, raw.data() + sent, raw.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break; // the server may refuse early and close
        sent += static_cast<std::size_t>(n);
    }
    const std::string text = readMessage(fd, timeoutMilliseconds);
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
    const std::string command = "createdb --maintenance-db='" + url("postgres") + "' " + name;
    if (std::system(command.c_str()) != 0) throw std::runtime_error("cannot create the test database " + name);
    return url(name);
}

void ServerProcess::start() {
    const std::string logPath = home_ + "/server.log";
    std::vector<std::string> args{TAVELO_CLOUD_BINARY, "--listen", "127.0.0.1:" + std::to_string(port_)};
    if (testPostgresURL()) {
        // Each server's data gets its own database; a restart on the same
        // home finds it again.
        const std::string file = home_ + "/database-url";
        std::string url = readFile(file);
        if (url.empty()) std::ofstream(file) << (url = createTestDatabase());
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
    signal(SIGTERM);
    return wait();
}

void ServerProcess::kill9() {
    signal(SIGKILL);
    wait();
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

std::string ServerProcess::ownerKey() const {
    const auto owner = jsonObject(readFile(ownerFile()));
    const auto* key = owner.if_contains("connectionKey");
    return key && key->is_string() ? std::string(key->as_string()) : std::string();
}

std::string ServerProcess::log() const { return readFile(home_ + "/server.log"); }

HttpResult ServerProcess::get(const std::string& target, const std::string& token) const {
    return send("GET", target, {}, token);
}

HttpResult ServerProcess::send(const std::string& method, const std::string& target, const std::string& body,
                               const std::string& token) const {
    std::vector<std::pair<std::string, std::string>> headers{{"Content-Type", "application/json"}};
    if (!token.empty()) headers.emplace_back("Authorization", "Bearer " + token);
    return httpRequest(port_, method, target, body, headers);
}

struct FakeProvider::Service {
    boost::asio::io_context context{4};
    Router router;
    HttpServer http{context, router, HttpLimits{}, nullptr};
    std::vector<std::thread> threads;
};

FakeProvider::FakeProvider(Handler handler) : service_(std::make_unique<Service>()) {
    service_->router.add("POST", "/v1/chat/completions", [this, handler](const Request& request, const std::string&) {
        {
            std::lock_guard lock(mutex_);
            bodies_.push_back(request.body);
        }
        const Reply reply = handler(request.body);
        std::this_thread::sleep_for(std::chrono::milliseconds(reply.delayMilliseconds));
        return jsonResponse(reply.status, reply.body);
    });
    port_ = service_->http.listen("127.0.0.1", 0);
    service_->http.start();
    // Several threads, so that a delayed reply does not hold the others.
    for (int i = 0; i < 4; ++i) service_->threads.emplace_back([this] { service_->context.run(); });
}

FakeProvider::~FakeProvider() {
    service_->http.stop();
    eventually([this] { return service_->http.connectionCount() == 0; });
    service_->context.stop();
    for (auto& thread : service_->threads) thread.join();
}

int FakeProvider::requestCount() const {
    std::lock_guard lock(mutex_);
    return static_cast<int>(bodies_.size());
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

} // namespace tavelo::cloud::testing
