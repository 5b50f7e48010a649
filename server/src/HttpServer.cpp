#include "HttpServer.h"

#include "Log.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

namespace tavelo::cloud {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
constexpr auto awaitable = asio::as_tuple(asio::use_awaitable);

struct HttpServer::Connection {
    asio::any_io_executor executor;     // the connection's strand
    beast::tcp_stream* stream = nullptr; // valid while the coroutine runs, touched on its strand only
    bool busy = false;
};

namespace {

using HttpResponse = http::response<http::string_body>;

HttpResponse toBeast(const Response& response, unsigned version, bool keepAlive) {
    HttpResponse res{static_cast<http::status>(response.status), version};
    res.set(http::field::server, "tavelo-cloud");
    res.set(http::field::content_type, response.contentType);
    res.set(http::field::cache_control, "no-store");
    res.set("X-Content-Type-Options", "nosniff");
    for (const auto& [name, value] : response.headers) res.set(name, value);
    res.keep_alive(keepAlive);
    res.body() = response.body;
    res.prepare_payload();
    return res;
}

} // namespace

struct ConnectionRunner {
    template <class Stream>
    static asio::awaitable<void> serve(HttpServer& server, Stream& stream, std::shared_ptr<HttpServer::Connection> connection,
                                       std::string remote) {
        auto& lowest = beast::get_lowest_layer(stream);
        beast::flat_buffer buffer;
        for (;;) {
            connection->busy = false;
            if (server.stopping_) break;
            http::request_parser<http::string_body> parser;
            parser.header_limit(static_cast<std::uint32_t>(server.limits_.headerLimit));
            parser.body_limit(server.limits_.bodyLimit);
            // The idle limit covers the wait for a request; once its first
            // bytes are in, the whole request must arrive within the read limit.
            if (buffer.size() == 0) {
                lowest.expires_after(server.limits_.idleTimeout);
                auto [idleError, firstBytes] = co_await stream.async_read_some(buffer.prepare(4096), awaitable);
                if (idleError) break;
                buffer.commit(firstBytes);
            }
            connection->busy = true;
            lowest.expires_after(server.limits_.readTimeout);
            auto [headerError, headerBytes] = co_await http::async_read_header(stream, buffer, parser, awaitable);
            connection->busy = true;
            std::optional<Response> refusal;
            if (!headerError) {
                lowest.expires_after(server.limits_.readTimeout);
                auto [bodyError, bodyBytes] = co_await http::async_read(stream, buffer, parser, awaitable);
                headerError = bodyError;
            }
            if (headerError) {
                if (headerError == http::error::body_limit) refusal = errorResponse(413, "リクエストが大きすぎます。");
                else if (headerError == http::error::header_limit) refusal = errorResponse(431, "ヘッダーが大きすぎます。");
                else if (headerError.category() == http::make_error_code(http::error::end_of_stream).category() &&
                         headerError != http::error::end_of_stream && headerError != http::error::partial_message)
                    refusal = errorResponse(400, "リクエストの形式が正しくありません。");
                if (!refusal) break; // closed, timed out or reset: nobody to answer
                lowest.expires_after(server.limits_.writeTimeout);
                auto res = toBeast(*refusal, 11, false);
                co_await http::async_write(stream, res, awaitable);
                break;
            }
            auto& message = parser.get();
            Request request;
            request.method = std::string(message.method_string());
            const std::string_view target = message.target();
            const auto question = target.find('?');
            request.path = std::string(target.substr(0, question));
            if (question != std::string_view::npos) request.query = std::string(target.substr(question + 1));
            request.body = std::move(message.body());
            request.authorization = std::string(message[http::field::authorization]);
            request.contentType = std::string(message[http::field::content_type]);
            request.remoteAddress = remote;
            if (server.limits_.trustForwardedFor) {
                const std::string_view forwarded = message["X-Forwarded-For"];
                const auto comma = forwarded.rfind(',');
                std::string_view last = comma == std::string_view::npos ? forwarded : forwarded.substr(comma + 1);
                while (!last.empty() && last.front() == ' ') last.remove_prefix(1);
                if (!last.empty() && last.size() <= 64) request.remoteAddress = std::string(last);
            }
            const auto started = std::chrono::steady_clock::now();
            const Response response = server.router_.handle(request);
            log(LogLevel::debug, "request",
                {{"method", request.method}, {"path", request.path}, {"status", std::to_string(response.status)},
                 {"remote", remote},
                 {"ms", std::to_string(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count())}});
            const bool keepAlive = message.keep_alive() && !server.stopping_;
            auto res = toBeast(response, message.version(), keepAlive);
            lowest.expires_after(server.limits_.writeTimeout);
            auto [writeError, written] = co_await http::async_write(stream, res, awaitable);
            if (writeError || !keepAlive) break;
        }
        connection->busy = false;
    }

    static asio::awaitable<void> run(HttpServer& server, tcp::socket socket) {
        auto connection = std::make_shared<HttpServer::Connection>();
        connection->executor = socket.get_executor();
        {
            std::lock_guard lock(server.mutex_);
            server.connections_[connection.get()] = connection;
        }
        boost::system::error_code ignored;
        const auto endpoint = socket.remote_endpoint(ignored);
        const std::string remote = ignored ? std::string("unknown") : endpoint.address().to_string();
        socket.set_option(tcp::no_delay(true), ignored);
        if (server.tls_) {
            asio::ssl::stream<beast::tcp_stream> stream(beast::tcp_stream(std::move(socket)), *server.tls_);
            connection->stream = &beast::get_lowest_layer(stream);
            beast::get_lowest_layer(stream).expires_after(server.limits_.readTimeout);
            auto [handshakeError] = co_await stream.async_handshake(asio::ssl::stream_base::server, awaitable);
            if (!handshakeError) {
                co_await serve(server, stream, connection, remote);
                beast::get_lowest_layer(stream).expires_after(std::chrono::seconds(5));
                co_await stream.async_shutdown(awaitable);
            }
        } else {
            beast::tcp_stream stream(std::move(socket));
            connection->stream = &stream;
            co_await serve(server, stream, connection, remote);
            stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
        }
        connection->stream = nullptr;
        server.forget(connection.get());
    }
};

HttpServer::HttpServer(asio::io_context& context, const Router& router, HttpLimits limits,
                       std::shared_ptr<asio::ssl::context> tls)
    : context_(context), router_(router), limits_(limits), tls_(std::move(tls)), acceptor_(asio::make_strand(context)) {}

HttpServer::~HttpServer() = default;

std::uint16_t HttpServer::listen(const std::string& host, std::uint16_t port) {
    const auto address = asio::ip::make_address(host == "localhost" ? "127.0.0.1" : host);
    const tcp::endpoint endpoint(address, port);
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(asio::socket_base::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen(asio::socket_base::max_listen_connections);
    return acceptor_.local_endpoint().port();
}

void HttpServer::start() { acceptLoop(); }

void HttpServer::acceptLoop() {
    asio::co_spawn(
        acceptor_.get_executor(),
        [this]() -> asio::awaitable<void> {
            asio::steady_timer pause(acceptor_.get_executor());
            while (!stopping_) {
                auto [error, socket] = co_await acceptor_.async_accept(asio::make_strand(context_), awaitable);
                if (stopping_ || !acceptor_.is_open()) break;
                if (error) {
                    // Out of descriptors and the like: breathe, then go on.
                    log(LogLevel::warning, "accept_failed", {{"message", error.message()}});
                    pause.expires_after(std::chrono::milliseconds(50));
                    co_await pause.async_wait(awaitable);
                    continue;
                }
                if (connectionCount() >= limits_.maxConnections) continue; // the socket closes here
                auto executor = socket.get_executor();
                asio::co_spawn(executor, ConnectionRunner::run(*this, std::move(socket)), asio::detached);
            }
        },
        asio::detached);
}

void HttpServer::stop() {
    if (stopping_.exchange(true)) return;
    asio::post(acceptor_.get_executor(), [this] {
        boost::system::error_code ignored;
        acceptor_.close(ignored);
    });
    std::lock_guard lock(mutex_);
    for (auto& [raw, weak] : connections_) {
        auto connection = weak.lock();
        if (!connection) continue;
        // Each connection's state is touched on its own strand only.
        asio::post(connection->executor, [connection] {
            if (connection->stream && !connection->busy) connection->stream->cancel();
        });
    }
}

std::size_t HttpServer::connectionCount() const {
    std::lock_guard lock(mutex_);
    return connections_.size();
}

void HttpServer::forget(Connection* connection) {
    std::lock_guard lock(mutex_);
    connections_.erase(connection);
}

std::shared_ptr<asio::ssl::context> makeTLSContext(const std::string& certificate, const std::string& key) {
    auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_server);
    context->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                         asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
    context->use_certificate_chain_file(certificate);
    context->use_private_key_file(key, asio::ssl::context::pem);
    return context;
}

} // namespace tavelo::cloud
