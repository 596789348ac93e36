#pragma once

#include "core/backend/AccessTokenProvider.h"

namespace kavelo::fuzz {

// A signed-in user whose token the server may refuse: a refresh is offered once, as in life.
class SignedInTokens final : public AccessTokenProvider {
  public:
    std::optional<std::string> currentAccessToken() override { return "access-token"; }
    std::optional<std::string> refreshedAccessToken() override { return "refreshed-token"; }
};

} // namespace kavelo::fuzz
