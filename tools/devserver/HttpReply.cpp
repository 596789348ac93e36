#include "tools/devserver/HttpReply.h"

#include <httplib.h>

namespace kavelo {

void HttpReply::json(httplib::Response& res, int status, const Json& body) {
    res.status = status;
    res.set_content(CoreJSON::encode(body), "application/json");
}

void HttpReply::error(httplib::Response& res, int status, const std::string& code,
                      const std::string& message) {
    json(res, status, Json{{"error", code}, {"error_code", code}, {"message", message}});
}

std::optional<Json> HttpReply::objectBody(const httplib::Request& req) {
    try {
        auto body = CoreJSON::decode(req.body);
        if (body.is_object()) {
            return body;
        }
    } catch (const DecodingError&) {
    }
    return std::nullopt;
}

std::optional<std::string> HttpReply::bearer(const httplib::Request& req) {
    auto header = req.get_header_value("Authorization");
    const std::string prefix = "Bearer ";
    if (header.size() <= prefix.size() || header.compare(0, prefix.size(), prefix) != 0) {
        return std::nullopt;
    }
    return header.substr(prefix.size());
}

} // namespace kavelo
