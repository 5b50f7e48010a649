#include "Router.h"

#include "Log.h"
#include "Storage.h"

#include <boost/json.hpp>

namespace tavelo::cloud {

Response errorResponse(int status, std::string_view message) {
    boost::json::object o;
    o["error"] = message;
    return Response{status, boost::json::serialize(o)};
}

Response jsonResponse(int status, std::string body) { return Response{status, std::move(body)}; }

namespace {
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string percentDecode(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out.push_back(' ');
        } else if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2])));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}
} // namespace

std::string queryValue(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        const auto amp = query.find('&');
        const std::string_view pair = query.substr(0, amp);
        const auto eq = pair.find('=');
        if (percentDecode(pair.substr(0, eq)) == name)
            return eq == std::string_view::npos ? std::string() : percentDecode(pair.substr(eq + 1));
        if (amp == std::string_view::npos) break;
        query.remove_prefix(amp + 1);
    }
    return {};
}

void Router::add(std::string method, std::string path, Handler handler) {
    const bool prefix = path.ends_with('/');
    routes_.push_back(Route{std::move(method), std::move(path), prefix, std::move(handler)});
}

Response Router::handle(const Request& request) const {
    bool pathKnown = false;
    for (const auto& route : routes_) {
        std::string segment;
        if (route.prefix) {
            if (!request.path.starts_with(route.path)) continue;
            segment = request.path.substr(route.path.size());
            if (segment.empty() || segment.find('/') != std::string::npos) continue;
        } else if (request.path != route.path) {
            continue;
        }
        pathKnown = true;
        if (route.method != request.method) continue;
        try {
            return route.handler(request, segment);
        } catch (const StorageError& error) {
            log(LogLevel::error, "storage_error", {{"path", request.path}, {"message", error.what()}});
            return errorResponse(503, "サーバーのデータベースを利用できません。しばらく待って再試行してください。");
        } catch (const std::exception& error) {
            log(LogLevel::error, "handler_error", {{"path", request.path}, {"message", error.what()}});
            return errorResponse(500, "サーバーでエラーが発生しました。");
        }
    }
    if (pathKnown) return errorResponse(405, "この操作はできません。");
    return errorResponse(404, "見つかりません。");
}

} // namespace tavelo::cloud
