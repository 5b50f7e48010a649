#pragma once

#include "Http.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tavelo::cloud {

// Maps method and path to a handler. A route is exact ("/v1/state") or a
// prefix ending in "/" whose remainder is one path segment
// ("/v1/schedules/" + id). Unknown paths answer 404, known paths with
// another method 405, handler exceptions 500; every error has a JSON body.
class Router {
public:
    using Handler = std::function<Response(const Request&, const std::string& segment)>;

    void add(std::string method, std::string path, Handler handler);
    Response handle(const Request& request) const;

private:
    struct Route {
        std::string method;
        std::string path;
        bool prefix;
        Handler handler;
    };
    std::vector<Route> routes_;
};

} // namespace tavelo::cloud
