#pragma once

#include "core/support/Time.h"

#include <optional>
#include <string>

namespace kavelo {

// The address already belongs to an account of another provider; linking needs this token.
struct AccountLinkRequirement {
    std::string linkToken;
    std::string existingProvider;
    std::optional<std::string> newProvider;
    std::string email;
    std::optional<TimePoint> expiresAt;

    bool operator==(const AccountLinkRequirement&) const = default;
};

} // namespace kavelo
