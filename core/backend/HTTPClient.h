#pragma once

#include "core/support/Bytes.h"
#include <cstddef>

#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace kavelo {

struct HTTPRequest {
    std::string url; // full URL with any query
    std::string method = "GET";
    std::map<std::string, std::string> headers;
    std::optional<Bytes> body;
    double timeout = 60.0; // seconds, for the whole transfer
    bool bypassCache = false;
    // A larger answer fails as a transport error before it is held in memory; 0 leaves the client's own
    // limit. Calls whose answers have a known bound set it, so a hostile server cannot make us download
    // megabytes we would refuse to read anyway.
    std::size_t maxResponseBytes = 0;

    bool operator==(const HTTPRequest&) const = default;
};

struct HTTPResponse {
    int statusCode = 0;
    Bytes body;

    [[nodiscard]] bool isSuccess() const { return statusCode >= 200 && statusCode <= 299; }
    bool operator==(const HTTPResponse&) const = default;
};

// No HTTP answer came. The kind lets callers tell a time-out from other transport failures; the text is
// the transport's own description (never a header or a body, so never a secret).
class TransportError : public std::runtime_error {
  public:
    enum class Kind { timeout, cancelled, other };
    TransportError(Kind kind, const std::string& description)
        : std::runtime_error(description), kind_(kind) {}
    [[nodiscard]] Kind kind() const { return kind_; }

  private:
    Kind kind_;
};

// Carries one request. Returns for any status the server gave and never interprets it; throws
// TransportError only when no HTTP response came. Safe to call from any thread.
class HTTPClient {
  public:
    virtual ~HTTPClient() = default;
    virtual HTTPResponse send(const HTTPRequest& request) = 0;
};

} // namespace kavelo
