#pragma once

#include <functional>

namespace tavelo::cloud {

class Router;
class Storage;
class Identity;
struct Config;

struct RouteContext {
    Storage& storage;
    Identity& identity;
    const Config& config;
    std::function<double()> now;
    // Tells the scheduler that a run was queued.
    std::function<void()> wakeScheduler;
};

// /healthz, /v1/config, /v1/session, /v1/account, /v1/login, /v1/logout,
// /v1/state, /v1/schedules, /v1/run.
void addCloudRoutes(Router& router, RouteContext context);
// /v1/accounts:*, /v1/token and the /action pages of the mails.
void addIdentityRoutes(Router& router, RouteContext context);

} // namespace tavelo::cloud
