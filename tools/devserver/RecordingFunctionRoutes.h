#pragma once

#include "tools/devserver/DevServerContext.h"

namespace httplib {
class Server;
}

namespace kavelo {

// The edge functions of the recording road: init-recording, list-recording-chunks, finalize-recording
// (report requests and diagnostic syncs) and early-speaker-mapping.
class RecordingFunctionRoutes {
  public:
    static void install(httplib::Server& server, DevServerContext& context);
};

} // namespace kavelo
