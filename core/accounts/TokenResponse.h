#pragma once

#include "core/accounts/AuthSession.h"
#include "core/support/CoreJSON.h"

#include <optional>
#include <string>

namespace kavelo {

// The answer of the auth API's token and sign-up endpoints.
struct TokenResponse {
    struct Metadata {
        std::optional<std::string> workProfile; // work_profile
        bool operator==(const Metadata&) const = default;
    };
    struct TokenUser {
        std::optional<std::string> id;
        std::optional<std::string> email;
        std::optional<std::string> createdAt; // created_at, as the server wrote it
        std::optional<Metadata> userMetadata; // user_metadata
        bool operator==(const TokenUser&) const = default;
    };

    std::string accessToken;         // access_token, required
    std::string refreshToken;        // refresh_token, required
    std::optional<double> expiresAt; // expires_at, seconds since 1970
    std::optional<double> expiresIn; // expires_in, seconds
    std::optional<TokenUser> user;

    // Strict, as a typed decoder is: throws DecodingError naming the key that is missing or of the wrong
    // type. Keys it does not know are ignored.
    static TokenResponse fromJson(const Json& json);

    // The session it describes. Without an expiry the token is taken to live an hour from now; without a
    // user, the user's fields are empty; a creation date that does not parse is left out.
    [[nodiscard]] AuthSession session(TimePoint now) const;

    bool operator==(const TokenResponse&) const = default;
};

} // namespace kavelo
