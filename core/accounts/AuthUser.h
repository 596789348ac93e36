#pragma once

#include "core/support/CoreJSON.h"
#include "core/support/Time.h"

#include <optional>
#include <string>

namespace kavelo {

// The signed-in user as the backend describes it. Stored inside the session item, keys as named here.
struct AuthUser {
    std::string id;
    std::string email;
    std::optional<std::string> workProfile; // profile choice from the user's metadata
    std::optional<TimePoint> createdAt;

    [[nodiscard]] Json toJson() const;
    // Throws DecodingError when a required key is missing or a value has the wrong type.
    static AuthUser fromJson(const Json& json);

    bool operator==(const AuthUser&) const = default;
};

} // namespace kavelo
