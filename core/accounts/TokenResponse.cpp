#include "core/accounts/TokenResponse.h"

#include "core/backend/WireJson.h"

namespace kavelo {

namespace {

// A date in either of the two ISO 8601 forms; absent when it is neither.
std::optional<TimePoint> lenientDate(const std::optional<std::string>& text) {
    if (!text) {
        return std::nullopt;
    }
    if (auto date = CoreJSON::parseISO8601Fractional(*text)) {
        return date;
    }
    return CoreJSON::parseISO8601Plain(*text);
}

} // namespace

TokenResponse TokenResponse::fromJson(const Json& json) {
    const Json& object = WireJson::object(json, "token response");
    TokenResponse response;
    response.accessToken = WireJson::requireString(object, "access_token");
    response.refreshToken = WireJson::requireString(object, "refresh_token");
    response.expiresAt = WireJson::optionalDouble(object, "expires_at");
    response.expiresIn = WireJson::optionalDouble(object, "expires_in");
    if (auto it = object.find("user"); it != object.end() && !it->is_null()) {
        const Json& userJson = WireJson::object(*it, "user");
        TokenUser user;
        user.id = WireJson::optionalString(userJson, "id");
        user.email = WireJson::optionalString(userJson, "email");
        user.createdAt = WireJson::optionalString(userJson, "created_at");
        if (auto meta = userJson.find("user_metadata"); meta != userJson.end() && !meta->is_null()) {
            const Json& metaJson = WireJson::object(*meta, "user_metadata");
            user.userMetadata = Metadata{WireJson::optionalString(metaJson, "work_profile")};
        }
        response.user = std::move(user);
    }
    return response;
}

AuthSession TokenResponse::session(TimePoint now) const {
    AuthSession session;
    session.accessToken = accessToken;
    session.refreshToken = refreshToken;
    if (expiresAt) {
        session.expiresAt = *expiresAt;
    } else {
        session.expiresAt = secondsSince1970(now) + expiresIn.value_or(3600.0);
    }
    if (user) {
        session.user.id = user->id.value_or("");
        session.user.email = user->email.value_or("");
        session.user.workProfile = user->userMetadata ? user->userMetadata->workProfile : std::nullopt;
        session.user.createdAt = lenientDate(user->createdAt);
    }
    return session;
}

} // namespace kavelo
