#pragma once

#include "core/backend/APIError.h"
#include "core/backend/AccessTokenProvider.h"
#include "core/backend/HTTPClient.h"
#include "core/support/AppConfig.h"
#include "core/support/CoreJSON.h"

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace kavelo {

// Reads and writes the hosted project's tables (PostgREST) and storage objects, always as the signed-in
// user: there is no anonymous road, so every call without a token throws APIError.unauthenticated.
//
// A refusal throws APIError.http with the first 300 bytes of the body as message and no error code;
// transport errors reach the caller as the transport threw them (TransportError). After a 401 the call
// is sent once more with a refreshed token. Immutable after construction; shared freely between tasks.
class SupabaseRestClient {
  public:
    // Column to PostgREST expression, e.g. {"id", "eq.42"}; each becomes one query item.
    using Filters = std::map<std::string, std::string>;

    SupabaseRestClient(AppConfig config, std::shared_ptr<HTTPClient> http,
                       std::shared_ptr<AccessTokenProvider> tokenProvider);

    // maxResponseBytes: a larger answer fails as a TransportError while it downloads; 0 leaves the
    // transport's own limit.
    Bytes select(const std::string& table, const std::string& columns, const Filters& filters = {},
                 std::optional<int> limit = std::nullopt, std::size_t maxResponseBytes = 0) const;
    // values: a JSON object or array.
    Bytes insert(const std::string& table, const Json& values) const;
    Bytes patch(const std::string& table, const Filters& filters, const Json& values) const;
    void deleteRows(const std::string& table, const Filters& filters) const;
    Bytes rpc(const std::string& name, const Bytes& body, std::size_t maxResponseBytes = 0) const;
    // Stores (or replaces) an object and returns its public URL.
    std::string uploadStorageObject(const std::string& bucket, const std::string& path, const Bytes& data,
                                    const std::string& contentType) const;

  private:
    [[nodiscard]] std::map<std::string, std::string> headers() const;
    HTTPResponse perform(HTTPRequest request) const;
    // Sends, and returns the body of a 2xx answer; anything else throws APIError.http.
    Bytes run(HTTPRequest request) const;
    [[nodiscard]] std::string tableURL(const std::string& table, const Filters& filters) const;

    const AppConfig config_;
    const std::shared_ptr<HTTPClient> http_;
    const std::shared_ptr<AccessTokenProvider> tokenProvider_;
};

} // namespace kavelo
