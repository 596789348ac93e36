#pragma once

#include "core/backend/HTTPClient.h"

namespace kavelo {

// One request whose failures the caller sees as APIError only: a time-out, a cancellation (of the request or
// of the task that runs it) and any other transport failure each get their own kind. Any answer, whatever
// its status, comes back.
HTTPResponse sendForAPI(HTTPClient& http, const HTTPRequest& request);

} // namespace kavelo
