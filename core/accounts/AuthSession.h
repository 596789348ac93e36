#pragma once

#include "core/accounts/AuthUser.h"

#include <string>

namespace kavelo {

// A signed-in session. Secrets inside: never log or print its tokens.
struct AuthSession {
    std::string accessToken;
    std::string refreshToken;
    double expiresAt = 0; // expiry of accessToken, seconds since 1970
    AuthUser user;

    // A token counts as expired 30 seconds before its real end, and exactly at that moment too, so that a
    // request sent with it still arrives in time.
    [[nodiscard]] bool isExpired(TimePoint now) const;

    [[nodiscard]] Json toJson() const;
    // Throws DecodingError when a required key is missing or a value has the wrong type.
    static AuthSession fromJson(const Json& json);

    bool operator==(const AuthSession&) const = default;
};

// Seconds since 1970 of a date, as the session's expiry counts them.
double secondsSince1970(TimePoint date);
TimePoint dateFromSecondsSince1970(double seconds);

} // namespace kavelo
