#include "HttpClient.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <openssl/ssl.h>

namespace tavelo::cloud {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

std::optional<ParsedURL> parseURL(const std::string& url) {
    ParsedURL parsed;
    std::string rest;
    if (url.starts_with("https://")) {
        parsed.tls = true;
        rest = url.substr(8);
    } else if (url.starts_with("http://")) {
        rest = url.substr(7);
    } else {
        return std::nullopt;
    }
    const auto slash = rest.find('/');
    std::string authority = rest.substr(0, slash);
    parsed.path = slash == std::string::npos ? "/" : rest.substr(slash);
    if (authority.empty() || authority.find('@') != std::string::npos) return std::nullopt;
    const auto colon = authority.rfind(':');
    if (colon != std::string::npos && authority.find(']') == std::string::npos) {
        parsed.host = authority.substr(0, colon);
        parsed.port = authority.substr(colon + 1);
    } else {
        parsed.host = authority;
        parsed.port = parsed.tls ? "443" : "80";
    }
    if (parsed.host.empty() || parsed.port.empty()) return std::nullopt;
    return parsed;
}

namespace {

template <class Stream>
asio::awaitable<ClientReply> exchange(Stream& stream, http::request<http::string_body>& request, std::size_t limit) {
    constexpr auto token = asio::as_tuple(asio::use_awaitable);
    auto [writeError, written] = co_await http::async_write(stream, request, token);
    if (writeError) throw HttpClientError("could not send the request: " + writeError.message());
    beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.body_limit(limit);
    auto [readError, read] = co_await http::async_read(stream, buffer, parser, token);
    if (readError == beast::error::timeout) throw HttpClientError("the provider did not answer in time");
    if (readError) throw HttpClientError("could not read the reply: " + readError.message());
    co_return ClientReply{static_cast<int>(parser.get().result_int()), std::move(parser.get().body())};
}

asio::awaitable<ClientReply> post(ParsedURL url, http::request<http::string_body> request, double timeout,
                                  std::size_t limit) {
    constexpr auto token = asio::as_tuple(asio::use_awaitable);
    auto executor = co_await asio::this_coro::executor;
    const auto deadline = std::chrono::milliseconds(static_cast<long long>(timeout * 1000));
    tcp::resolver resolver(executor);
    auto [resolveError, endpoints] = co_await resolver.async_resolve(url.host, url.port, token);
    if (resolveError) throw HttpClientError("cannot resolve " + url.host + ": " + resolveError.message());
    beast::tcp_stream tcpStream(executor);
    tcpStream.expires_after(deadline);
    auto [connectError, connected] = co_await tcpStream.async_connect(endpoints, token);
    if (connectError == beast::error::timeout) throw HttpClientError("the provider did not answer in time");
    if (connectError) throw HttpClientError("cannot connect to " + url.host + ": " + connectError.message());
    if (!url.tls) co_return co_await exchange(tcpStream, request, limit);

    asio::ssl::context tls(asio::ssl::context::tls_client);
    tls.set_default_verify_paths();
    tls.set_verify_mode(asio::ssl::verify_peer);
    beast::ssl_stream<beast::tcp_stream> stream(std::move(tcpStream), tls);
    if (!SSL_set_tlsext_host_name(stream.native_handle(), url.host.c_str()))
        throw HttpClientError("cannot set the TLS server name");
    stream.set_verify_callback(asio::ssl::host_name_verification(url.host));
    auto [handshakeError] = co_await stream.async_handshake(asio::ssl::stream_base::client, token);
    if (handshakeError) throw HttpClientError("TLS handshake with " + url.host + " failed: " + handshakeError.message());
    co_return co_await exchange(stream, request, limit);
}

} // namespace

ClientReply httpPost(const std::string& urlText, const std::vector<std::pair<std::string, std::string>>& headers,
                     const std::string& body, double timeoutSeconds, std::size_t replyLimit) {
    const auto url = parseURL(urlText);
    if (!url) throw HttpClientError("bad URL " + urlText);
    http::request<http::string_body> request{http::verb::post, url->path, 11};
    request.set(http::field::host, url->host);
    request.set(http::field::user_agent, "tavelo-cloud");
    for (const auto& [name, value] : headers) request.set(name, value);
    request.body() = body;
    request.prepare_payload();

    asio::io_context context;
    std::optional<ClientReply> reply;
    std::exception_ptr failure;
    asio::co_spawn(context, post(*url, std::move(request), timeoutSeconds, replyLimit),
                   [&](std::exception_ptr error, ClientReply result) {
                       if (error) failure = error;
                       else reply = std::move(result);
                   });
    context.run();
    if (failure) std::rethrow_exception(failure);
    if (!reply) throw HttpClientError("no reply");
    return *reply;
}

} // namespace tavelo::cloud
