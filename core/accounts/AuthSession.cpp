#include "core/accounts/AuthSession.h"

namespace kavelo {

double secondsSince1970(TimePoint date) {
    return std::chrono::duration<double>(date.time_since_epoch()).count();
}

TimePoint dateFromSecondsSince1970(double seconds) {
    return addSeconds(TimePoint{}, seconds);
}

bool AuthSession::isExpired(TimePoint now) const {
    return expiresAt - 30.0 <= secondsSince1970(now);
}

Json AuthSession::toJson() const {
    return Json{{"accessToken", accessToken},
                {"refreshToken", refreshToken},
                {"expiresAt", expiresAt},
                {"user", user.toJson()}};
}

AuthSession AuthSession::fromJson(const Json& json) {
    if (!json.is_object()) {
        throw DecodingError("session: expected an object");
    }
    auto field = [&](const char* key) -> const Json& {
        auto it = json.find(key);
        if (it == json.end()) {
            throw DecodingError(std::string("session.") + key + ": missing");
        }
        return *it;
    };
    const Json& access = field("accessToken");
    const Json& refresh = field("refreshToken");
    const Json& expires = field("expiresAt");
    if (!access.is_string() || !refresh.is_string()) {
        throw DecodingError("session: tokens must be strings");
    }
    if (!expires.is_number()) {
        throw DecodingError("session.expiresAt: expected a number");
    }
    AuthSession session;
    session.accessToken = access.get<std::string>();
    session.refreshToken = refresh.get<std::string>();
    session.expiresAt = expires.get<double>();
    session.user = AuthUser::fromJson(field("user"));
    return session;
}

} // namespace kavelo
