#pragma once

#include "tools/devserver/DevServerContext.h"

namespace httplib {
class Server;
}

namespace kavelo {

// What the dashboard reads besides recordings: the tips function ("get-tips", signed-in users only) and
// the static update policy file ("/update-policy.json", no authentication, as a file host serves it).
class WorkspaceContentRoutes {
  public:
    static void install(httplib::Server& server, DevServerContext& context);
};

} // namespace kavelo
