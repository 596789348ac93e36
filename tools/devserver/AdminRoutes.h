#pragma once

#include "tools/devserver/DevServerContext.h"

namespace httplib {
class Server;
}

namespace kavelo {

// /__admin/: what tests use to look inside the stand-in and to steer it: storage contents, recordings,
// users and sessions, fault rules, runtime settings, the request log. No credentials: the server listens
// on the loopback address only, and admin routes are never subject to faults.
class AdminRoutes {
  public:
    static void install(httplib::Server& server, DevServerContext& context);
};

} // namespace kavelo
