#include "Crypto.h"
#include "Identity.h"
#include "Router.h"
#include "Routes.h"
#include "Storage.h"

#include <boost/json.hpp>

namespace tavelo::cloud {

namespace {

std::string escapeHTML(std::string_view text) {
    std::string out;
    for (char c : text) {
        switch (c) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out.push_back(c);
        }
    }
    return out;
}

Response page(int status, const std::string& title, const std::string& content) {
    Response response;
    response.status = status;
    response.contentType = "text/html; charset=utf-8";
    response.body = "<!doctype html><html lang=\"ja\"><meta charset=\"utf-8\"><title>" + escapeHTML(title) +
                    "</title><body><h1>" + escapeHTML(title) + "</h1>" + content + "</body></html>";
    response.headers.emplace_back("Content-Security-Policy", "default-src 'none'; form-action 'self'");
    return response;
}

// The identity routes answer with the identity service's own JSON; the
// action pages turn them into text.
std::string messageOf(const Response& response) {
    boost::system::error_code ec;
    const auto value = boost::json::parse(response.body, ec);
    if (ec || !value.is_object()) return {};
    const auto* error = value.as_object().if_contains("error");
    if (!error || !error->is_object()) return {};
    const auto* message = error->as_object().if_contains("message");
    return message && message->is_string() ? std::string(message->as_string()) : std::string();
}

} // namespace

void addIdentityRoutes(Router& router, RouteContext c) {
    auto context = std::make_shared<RouteContext>(std::move(c));
    Identity& identity = context->identity;
    router.add("POST", "/v1/accounts:signUp", [&identity](const Request& r, const std::string&) { return identity.signUp(r); });
    router.add("POST", "/v1/accounts:signInWithPassword",
               [&identity](const Request& r, const std::string&) { return identity.signInWithPassword(r); });
    router.add("POST", "/v1/accounts:sendOobCode", [&identity](const Request& r, const std::string&) { return identity.sendOobCode(r); });
    router.add("POST", "/v1/accounts:resetPassword",
               [&identity](const Request& r, const std::string&) { return identity.resetPassword(r); });
    router.add("POST", "/v1/accounts:update", [&identity](const Request& r, const std::string&) { return identity.update(r); });
    router.add("POST", "/v1/token", [&identity](const Request& r, const std::string&) { return identity.refresh(r); });

    // The links in the mails.
    router.add("GET", "/action", [&identity](const Request& r, const std::string&) {
        const std::string mode = queryValue(r.query, "mode");
        const std::string code = queryValue(r.query, "oobCode");
        if (mode == "verifyEmail") {
            boost::json::object body{{"oobCode", code}};
            Request inner{"POST", "/v1/accounts:update", "key=" + identity.apiKey(), boost::json::serialize(body), "", "", r.remoteAddress};
            const Response result = identity.update(inner);
            if (result.status == 200) return page(200, "メールアドレスを確認しました", "<p>Taveloに戻ってください。</p>");
            return page(400, "確認できませんでした", "<p>リンクの有効期限が切れているか、すでに使われています。</p>");
        }
        if (mode == "resetPassword") {
            return page(200, "パスワードの再設定",
                        "<form method=\"post\" action=\"/action\"><input type=\"hidden\" name=\"oobCode\" value=\"" +
                            escapeHTML(code) +
                            "\"><label>新しいパスワード <input type=\"password\" name=\"newPassword\" minlength=\"6\" required>"
                            "</label> <button>設定する</button></form>");
        }
        return page(404, "見つかりません", "");
    });
    router.add("POST", "/action", [&identity](const Request& r, const std::string&) {
        boost::json::object body{{"oobCode", queryValue(r.body, "oobCode")}, {"newPassword", queryValue(r.body, "newPassword")}};
        Request inner{"POST", "/v1/accounts:resetPassword", "key=" + identity.apiKey(), boost::json::serialize(body), "", "", r.remoteAddress};
        const Response result = identity.resetPassword(inner);
        if (result.status == 200) return page(200, "パスワードを再設定しました", "<p>Taveloで新しいパスワードでログインしてください。</p>");
        const std::string message = messageOf(result);
        return page(400, "再設定できませんでした",
                    message.starts_with("WEAK_PASSWORD") ? "<p>パスワードは6文字以上にしてください。</p>"
                                                         : "<p>リンクの有効期限が切れているか、すでに使われています。</p>");
    });
}

} // namespace tavelo::cloud
