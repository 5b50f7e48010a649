#pragma once

// The server's view of one HTTP exchange, independent of the transport.

#include <string>
#include <utility>
#include <vector>

namespace tavelo::cloud {

struct Request {
    std::string method;
    std::string path;  // without the query
    std::string query; // without the "?"
    std::string body;
    std::string authorization;
    std::string contentType;
    std::string remoteAddress;
};

struct Response {
    int status = 200;
    std::string body;
    std::string contentType = "application/json; charset=utf-8";
    std::vector<std::pair<std::string, std::string>> headers;
};

// {"error": message} with `status`.
Response errorResponse(int status, std::string_view message);
Response jsonResponse(int status, std::string body);

// The value of `name` in an "a=b&c=d" query or form body, percent-decoded.
std::string queryValue(std::string_view query, std::string_view name);

} // namespace tavelo::cloud
