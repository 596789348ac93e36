#pragma once

#include "core/backend/HTTPClient.h"

#include <cstddef>

namespace kavelo {

// What an answer of the hosted backend means where its status alone misleads. Its storage reports an
// object that exists as HTTP 400 with the status it means ("409") inside the JSON body, and an access token
// that ran out comes back from storage and auth as 400 or 403 with a JWT message, not only as 401.
//
// Pure functions of the answer; any thread.
class HostedAnswer {
  public:
    // The object is already stored: 409, or 400 whose body says statusCode 409.
    [[nodiscard]] static bool isDuplicateObject(const HTTPResponse& response);
    // The bearer token was refused as expired or unreadable: 401, or 400/403 whose error text names a JWT
    // (or JWS). Worth one refresh and one retry.
    [[nodiscard]] static bool isRefusedToken(const HTTPResponse& response);
    // The status as the backend means it: 409 for a duplicate, 401 for a refused token, else the status.
    [[nodiscard]] static int meaningfulStatus(const HTTPResponse& response);

    // Only the head of an error body is looked at; error bodies are short.
    static constexpr std::size_t maxInspectedBytes = 8 * 1024;
};

} // namespace kavelo
