#include "Config.h"
#include "Identity.h"
#include "JsonUtil.h"
#include "Router.h"
#include "Routes.h"
#include "Schedule.h"
#include "Storage.h"

#include <boost/json.hpp>

namespace tavelo::cloud {

namespace {

// Runs listed in GET /v1/state, newest first.
constexpr int kStateRunLimit = 1000;
// A schedule saved just after its time still runs that occurrence.
constexpr double kSaveSlackSeconds = 60;

constexpr const char* kUnauthorized = "認証できませんでした。もう一度ログインしてください。";
constexpr const char* kBadJSON = "リクエストの形式が正しくありません。";
constexpr const char* kNoProvider =
    "このサーバーにはAIプロバイダーが設定されていません。サーバーの管理者に設定を依頼してください。";

using Handler = std::function<Response(const Request&, const Principal&, const std::string&)>;

Router::Handler authenticated(const RouteContext& context, Handler handler) {
    return [&identity = context.identity, handler = std::move(handler)](const Request& request, const std::string& segment) {
        const auto principal = identity.authenticate(request.authorization);
        if (!principal) return errorResponse(401, kUnauthorized);
        return handler(request, *principal, segment);
    };
}

Response object(boost::json::object o) { return Response{200, boost::json::serialize(o)}; }

} // namespace

void addCloudRoutes(Router& router, RouteContext c) {
    auto context = std::make_shared<RouteContext>(std::move(c));
    const RouteContext& ctx = *context;

    router.add("GET", "/healthz", [context](const Request&, const std::string&) {
        return Response{200, R"({"status":"ok"})"};
    });

    router.add("GET", "/v1/config", [context](const Request&, const std::string&) {
        return object({{"apiKey", context->identity.apiKey()}});
    });

    router.add("GET", "/v1/session", authenticated(ctx, [](const Request&, const Principal& p, const std::string&) {
        boost::json::object o;
        o["userID"] = p.userID;
        if (p.email) o["email"] = *p.email;
        o["kind"] = p.owner ? "owner" : "identity";
        boost::json::array capabilities{"schedules", "runs"};
        if (p.owner || p.emailVerified) capabilities.push_back("verifiedEmail");
        o["capabilities"] = std::move(capabilities);
        return object(std::move(o));
    }));

    // The AI link of a self-hosted server is the provider configured on the
    // server; each user can switch it off for their runs (logout) and on
    // again (login). No device code is involved.
    router.add("GET", "/v1/account", authenticated(ctx, [context](const Request&, const Principal& p, const std::string&) {
        const auto& provider = context->config.provider;
        boost::json::object o;
        o["connected"] = provider.configured() && context->storage.aiLinked(p.userID);
        if (provider.configured()) o["plan"] = provider.model;
        return object(std::move(o));
    }));

    auto login = [context](const Request&, const Principal& p, const std::string&) {
        const auto& provider = context->config.provider;
        if (!provider.configured()) return errorResponse(503, kNoProvider);
        context->storage.setAILinked(p.userID, true);
        return errorResponse(409, "ChatGPTへのログインは不要です。このサーバーはAIプロバイダー（" + provider.model +
                                      "）に接続しました。");
    };
    router.add("POST", "/v1/login", authenticated(ctx, login));
    router.add("GET", "/v1/login", authenticated(ctx, login));

    router.add("POST", "/v1/logout", authenticated(ctx, [context](const Request&, const Principal& p, const std::string&) {
        context->storage.setAILinked(p.userID, false);
        return object({{"status", "disconnected"}});
    }));

    router.add("GET", "/v1/state", authenticated(ctx, [context](const Request&, const Principal& p, const std::string&) {
        boost::json::array schedules, runs;
        for (const auto& s : context->storage.schedules(p.userID)) schedules.push_back(encode(s));
        for (const auto& r : context->storage.runs(p.userID, kStateRunLimit)) runs.push_back(encode(r));
        boost::json::object o;
        o["schedules"] = std::move(schedules);
        o["runs"] = std::move(runs);
        return object(std::move(o));
    }));

    router.add("PUT", "/v1/schedules", authenticated(ctx, [context](const Request& request, const Principal& p, const std::string&) {
        const auto body = json::parseObject(request.body);
        if (!body) return errorResponse(400, kBadJSON);
        auto decoded = decodeSchedule(*body);
        if (auto* message = std::get_if<std::string>(&decoded)) return errorResponse(400, *message);
        const auto& schedule = std::get<ScheduleRecord>(decoded);
        if (auto message = validationMessage(schedule)) return errorResponse(400, *message);
        const auto next = nextOccurrence(schedule, context->now() - kSaveSlackSeconds);
        context->storage.putSchedule(p.userID, schedule, next);
        if (next && *next <= context->now()) context->wakeScheduler();
        return object(encode(schedule));
    }));

    router.add("DELETE", "/v1/schedules/", authenticated(ctx, [context](const Request&, const Principal& p, const std::string& segment) {
        const auto id = canonicalUUID(segment);
        if (!id) return errorResponse(400, "予定のIDが正しくありません。");
        if (!context->storage.deleteSchedule(p.userID, *id)) return errorResponse(404, "予定が見つかりません。");
        return object({{"status", "deleted"}});
    }));

    router.add("POST", "/v1/run", authenticated(ctx, [context](const Request& request, const Principal& p, const std::string&) {
        const auto body = json::parseObject(request.body);
        if (!body) return errorResponse(400, kBadJSON);
        const auto text = json::string(*body, "scheduleID");
        const auto id = text ? canonicalUUID(*text) : std::nullopt;
        if (!id) return errorResponse(400, "予定のIDが正しくありません。");
        const double now = context->now();
        const auto run = context->storage.enqueueRun(p.userID, *id, now, now);
        if (!run) return errorResponse(404, "予定が見つかりません。");
        context->wakeScheduler();
        return object({{"status", "queued"}, {"runID", run->id}});
    }));
}

} // namespace tavelo::cloud
