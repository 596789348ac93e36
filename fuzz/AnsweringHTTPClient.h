#pragma once

#include "core/backend/HTTPClient.h"

#include <array>
#include <cstdint>

namespace kavelo::fuzz {

// The backend as the fuzzer plays it: every request gets the same status and body. The status comes from
// the answers a real server gives (and a few it should not), so that the success road and every error
// road read the body.
class AnsweringHTTPClient final : public HTTPClient {
  public:
    AnsweringHTTPClient(std::uint8_t statusChoice, Bytes body) : body_(std::move(body)) {
        static constexpr std::array<int, 20> statuses{200, 201, 204, 206, 299, 100, 300, 400, 401, 403,
                                                      404, 409, 413, 422, 429, 500, 502, 503, 504, 599};
        status_ = statuses[statusChoice % statuses.size()];
    }

    HTTPResponse send(const HTTPRequest&) override { return HTTPResponse{status_, body_}; }

  private:
    int status_ = 200;
    Bytes body_;
};

} // namespace kavelo::fuzz
