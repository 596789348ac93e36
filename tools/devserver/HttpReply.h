#pragma once

#include "core/support/CoreJSON.h"

#include <optional>
#include <string>

namespace httplib {
struct Request;
struct Response;
} // namespace httplib

namespace kavelo {

// The small vocabulary every route of the stand-in answers in.
class HttpReply {
  public:
    static void json(httplib::Response& res, int status, const Json& body);
    // The backend's error body: {"error": code, "error_code": code, "message": message}.
    static void error(httplib::Response& res, int status, const std::string& code,
                      const std::string& message);
    // The request's JSON body when it is an object; absent otherwise.
    static std::optional<Json> objectBody(const httplib::Request& req);
    // The token of "Authorization: Bearer <token>", absent when there is none.
    static std::optional<std::string> bearer(const httplib::Request& req);
};

} // namespace kavelo
