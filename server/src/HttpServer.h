#pragma once

// HTTP/1.1 with keep-alive over Boost.Beast, one coroutine per connection on
// its own strand of a multi-threaded io_context. Request limits: header and
// body size, a deadline for reading a whole request (slow clients) and for
// writing the reply, an idle limit between requests. `stop` finishes the
// requests in flight and closes idle connections.

#include "Router.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace tavelo::cloud {

struct HttpLimits {
    std::size_t headerLimit = 16 * 1024;
    std::size_t bodyLimit = 256 * 1024;
    std::chrono::seconds readTimeout{20};
    std::chrono::seconds idleTimeout{75};
    std::chrono::seconds writeTimeout{20};
    std::size_t maxConnections = 10000;
    // Behind a proxy the peer is the proxy: take the client's address from
    // the last hop of X-Forwarded-For, which the proxy appends.
    bool trustForwardedFor = false;
};

class HttpServer {
public:
    HttpServer(boost::asio::io_context& context, const Router& router, HttpLimits limits,
               std::shared_ptr<boost::asio::ssl::context> tls);
    ~HttpServer();

    // Binds and listens; gives the port (useful with port 0).
    std::uint16_t listen(const std::string& host, std::uint16_t port);
    void start();
    // Stops accepting, lets requests in flight finish and closes idle
    // connections. Thread-safe.
    void stop();
    std::size_t connectionCount() const;

    struct Connection;

private:
    void acceptLoop();
    void forget(Connection* connection);

    boost::asio::io_context& context_;
    const Router& router_;
    HttpLimits limits_;
    std::shared_ptr<boost::asio::ssl::context> tls_;
    boost::asio::ip::tcp::acceptor acceptor_;
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;
    std::unordered_map<Connection*, std::weak_ptr<Connection>> connections_;
    friend struct ConnectionRunner;
};

// A TLS context from PEM files; throws with a readable message.
std::shared_ptr<boost::asio::ssl::context> makeTLSContext(const std::string& certificate, const std::string& key);

} // namespace tavelo::cloud
