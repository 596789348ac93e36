#pragma once

#include "tools/devserver/DevServerContext.h"

namespace httplib {
class Server;
}

namespace kavelo {

// OAuth sign-in with PKCE through the functions oauth-prepare and oauth-mobile-exchange, account linking
// through confirm-account-link, and GET auth/v1/authorize, where a pretend provider consents at once and
// sends the browser to the callback URL with a one-time code.
class OAuthRoutes {
  public:
    static void install(httplib::Server& server, DevServerContext& context);
};

} // namespace kavelo
