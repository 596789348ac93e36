#pragma once

#include <optional>
#include <string>

namespace kavelo {

// Where the backend clients get the user's bearer token. Both calls may block while a refresh runs.
class AccessTokenProvider {
  public:
    virtual ~AccessTokenProvider() = default;
    // A token that is valid as far as the provider knows, refreshed first if need be; absent when nobody
    // is signed in.
    virtual std::optional<std::string> currentAccessToken() = 0;
    // A new token, because the server refused the last one. A provider that cannot refresh has none.
    virtual std::optional<std::string> refreshedAccessToken() { return std::nullopt; }
};

} // namespace kavelo
