#pragma once

#include "core/backend/APIError.h"
#include "core/backend/AccessTokenProvider.h"
#include "core/backend/HTTPClient.h"
#include "core/support/AppConfig.h"
#include "core/support/CoreJSON.h"
#include "core/support/CoreLogger.h"

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace kavelo {

// Calls the hosted project's edge functions by name, always by POST with a JSON body.
//
// It owns three rules that every caller shares: which Authorization header a call carries, the single
// retry after a 401 with a refreshed token, and the reduction of every failure to APIError.
//
// Immutable after construction; calls may run on any thread at once. Several calls that meet a 401
// together converge on one refresh inside the token provider.
class SupabaseFunctionClient {
  public:
    enum class AuthMode {
        required,  // the user's token; without one the call fails before anything is sent
        optional,  // the user's token when there is one, else the anon key
        anonymous, // the anon key; the token provider is not asked
    };
    using Headers = std::map<std::string, std::string>;

    SupabaseFunctionClient(AppConfig config, std::shared_ptr<HTTPClient> http,
                           std::shared_ptr<AccessTokenProvider> tokenProvider,
                           std::shared_ptr<CoreLogger> logger);

    [[nodiscard]] std::string functionURL(const std::string& name) const;

    // The raw body of a 2xx answer. Without authMode, authorized true works as required and false as
    // anonymous. An extra header replaces a header of the same name. A non-zero maxResponseBytes refuses a
    // longer answer as a network failure. Throws APIError only.
    Bytes postRaw(const std::string& name, const Json& body, bool authorized = true,
                  std::optional<AuthMode> authMode = std::nullopt, const Headers& extraHeaders = {},
                  double timeout = 30.0, std::size_t maxResponseBytes = 0) const;

    // postRaw, then the record's own decoding (T::fromJson); a body that does not fit throws
    // APIError.decoding with the function's name in front.
    template <class T>
    T post(const std::string& name, const Json& body, bool authorized = true,
           std::optional<AuthMode> authMode = std::nullopt, const Headers& extraHeaders = {},
           double timeout = 30.0) const {
        Bytes raw = postRaw(name, body, authorized, authMode, extraHeaders, timeout);
        try {
            return T::fromJson(CoreJSON::decode(raw));
        } catch (const DecodingError& e) {
            throw APIError::decoding(name + ": " + e.what());
        } catch (const Json::exception& e) {
            throw APIError::decoding(name + ": " + e.what());
        }
    }

  private:
    // One POST; a 2xx body returns, anything else throws. Transport errors come back as APIError.
    HTTPResponse sendOnce(const std::string& name, const Headers& headers, const Bytes& body,
                          std::size_t maxResponseBytes, double timeout) const;
    [[noreturn]] void fail(const std::string& name, const HTTPResponse& response) const;

    const AppConfig config_;
    const std::shared_ptr<HTTPClient> http_;
    const std::shared_ptr<AccessTokenProvider> tokenProvider_;
    const std::shared_ptr<CoreLogger> logger_;
};

} // namespace kavelo
