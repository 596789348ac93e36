#pragma once

#include "tools/devserver/DevServerContext.h"

#include <string>
#include <vector>

namespace httplib {
class Server;
}

namespace kavelo {

// The tables below rest/v1 that the recording road and the profile use: GET meetings, GET and PATCH
// profiles. Row-level security as the hosted project has it: a caller sees and changes only rows whose
// user_id is their own; the anon key sees none.
class RestRoutes {
  public:
    static void install(httplib::Server& server, DevServerContext& context);

    static const std::vector<std::string>& meetingColumns();
    // Without job_title and company when the server runs with the older profiles schema.
    static std::vector<std::string> profileColumns(bool legacySchema);
};

} // namespace kavelo
