#include "tools/devserver/CallerAuth.h"

#include "tools/devserver/HttpReply.h"

#include <httplib.h>

namespace kavelo {

CallerAuth::CallerAuth(AuthStore& auth, std::string anonKey, int expiredTokenStatus)
    : auth_(auth), anonKey_(std::move(anonKey)), expiredTokenStatus_(expiredTokenStatus) {}

std::optional<CallerAuth::Caller> CallerAuth::identify(const httplib::Request& req, httplib::Response& res,
                                                       bool userRequired) const {
    if (req.get_header_value("apikey") != anonKey_) {
        HttpReply::error(res, 401, "invalid_api_key", "Invalid API key");
        return std::nullopt;
    }
    auto token = HttpReply::bearer(req);
    if (!token) {
        HttpReply::error(res, 401, "unauthorized", "Missing authorization header");
        return std::nullopt;
    }
    if (*token == anonKey_) {
        if (userRequired) {
            HttpReply::error(res, 401, "unauthorized", "Sign-in required");
            return std::nullopt;
        }
        return Caller{};
    }
    auto check = auth_.checkAccessToken(*token);
    switch (check.state) {
    case AuthStore::TokenState::valid:
        return Caller{check.user};
    case AuthStore::TokenState::expired:
        if (expiredTokenStatus_ != 401) {
            // The hosted storage's shape: the meant status as text beside the HTTP one.
            HttpReply::json(res, expiredTokenStatus_,
                            Json{{"statusCode", std::to_string(expiredTokenStatus_)},
                                 {"error", "Unauthorized"},
                                 {"message", "jwt expired"}});
            return std::nullopt;
        }
        HttpReply::error(res, 401, "jwt_expired", "JWT expired");
        return std::nullopt;
    case AuthStore::TokenState::unknown:
        break;
    }
    HttpReply::error(res, 401, "invalid_jwt", "Invalid JWT");
    return std::nullopt;
}

} // namespace kavelo
