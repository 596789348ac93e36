#pragma once

#include "tools/devserver/AuthStore.h"

#include <optional>
#include <string>

namespace httplib {
struct Request;
struct Response;
} // namespace httplib

namespace kavelo {

// Who is calling, as the gateway in front of functions, tables and storage judges it: the anon key must
// come as `apikey`; the bearer is either the anon key (nobody signed in) or a live access token.
class CallerAuth {
  public:
    struct Caller {
        std::optional<DevUser> user; // absent: the anon key was the bearer
    };

    // expiredTokenStatus: 401, or the 400 or 403 that the hosted storage and gateway give an expired token.
    CallerAuth(AuthStore& auth, std::string anonKey, int expiredTokenStatus = 401);

    // On refusal writes a 401 (an expired token: expiredTokenStatus) and returns absent. With userRequired,
    // the anon key as bearer is refused.
    std::optional<Caller> identify(const httplib::Request& req, httplib::Response& res,
                                   bool userRequired) const;

  private:
    AuthStore& auth_;
    const std::string anonKey_;
    const int expiredTokenStatus_;
};

} // namespace kavelo
