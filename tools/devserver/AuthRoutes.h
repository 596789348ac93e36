#pragma once

#include "tools/devserver/DevServerContext.h"

namespace httplib {
class Server;
}

namespace kavelo {

// The auth API below auth/v1: password and refresh-token grants (refresh tokens rotate, each works once),
// sign-up, sign-out and the user object. Errors come in the auth API's own shape: error_code and msg.
class AuthRoutes {
  public:
    static void install(httplib::Server& server, DevServerContext& context);
};

} // namespace kavelo
