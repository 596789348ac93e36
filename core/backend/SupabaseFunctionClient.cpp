#include "core/backend/SupabaseFunctionClient.h"

#include "core/backend/HostedAnswer.h"
#include "core/backend/SendForAPI.h"
#include "core/backend/SupabaseErrorText.h"
#include "core/support/CancellationToken.h"

namespace kavelo {

namespace {

// The error body of the edge functions. It reads as a whole or not at all, as a typed decoder would.
struct BackendErrorBody {
    std::optional<std::string> error;
    std::optional<std::string> errorCode;
    std::optional<std::string> message;
    std::optional<std::string> code;

    static std::optional<BackendErrorBody> read(const Bytes& body) {
        Json json;
        try {
            json = CoreJSON::decode(body);
        } catch (const DecodingError&) {
            return std::nullopt;
        }
        if (!json.is_object()) {
            return std::nullopt;
        }
        BackendErrorBody out;
        for (auto [key, field] : {std::pair{"error", &out.error},
                                  {"error_code", &out.errorCode},
                                  {"message", &out.message},
                                  {"code", &out.code},
                                  {"reason", nullptr}}) {
            auto it = json.find(key);
            if (it == json.end() || it->is_null()) {
                continue;
            }
            if (!it->is_string()) {
                return std::nullopt;
            }
            if (field) {
                *field = it->get<std::string>();
            }
        }
        return out;
    }
};

} // namespace

SupabaseFunctionClient::SupabaseFunctionClient(AppConfig config, std::shared_ptr<HTTPClient> http,
                                               std::shared_ptr<AccessTokenProvider> tokenProvider,
                                               std::shared_ptr<CoreLogger> logger)
    : config_(std::move(config)), http_(std::move(http)), tokenProvider_(std::move(tokenProvider)),
      logger_(std::move(logger)) {}

std::string SupabaseFunctionClient::functionURL(const std::string& name) const {
    return config_.supabaseUrl + "/functions/v1/" + name;
}

Bytes SupabaseFunctionClient::postRaw(const std::string& name, const Json& body, bool authorized,
                                      std::optional<AuthMode> authMode, const Headers& extraHeaders,
                                      double timeout, std::size_t maxResponseBytes) const {
    const AuthMode mode = authMode.value_or(authorized ? AuthMode::required : AuthMode::anonymous);
    Headers headers{{"Content-Type", "application/json"}, {"apikey", config_.anonKey}};
    switch (mode) {
    case AuthMode::required: {
        std::optional<std::string> token =
            tokenProvider_ ? tokenProvider_->currentAccessToken() : std::nullopt;
        if (!token) {
            throw APIError::unauthenticated();
        }
        headers["Authorization"] = "Bearer " + *token;
        break;
    }
    case AuthMode::optional: {
        std::optional<std::string> token =
            tokenProvider_ ? tokenProvider_->currentAccessToken() : std::nullopt;
        headers["Authorization"] = "Bearer " + token.value_or(config_.anonKey);
        break;
    }
    case AuthMode::anonymous:
        headers["Authorization"] = "Bearer " + config_.anonKey;
        break;
    }
    for (const auto& [key, value] : extraHeaders) {
        headers[key] = value;
    }
    const Bytes bytes = CoreJSON::encodeBytes(body);

    HTTPResponse response = sendOnce(name, headers, bytes, maxResponseBytes, timeout);
    // An optional call that went out with the anon key is retried too: a token may exist after refresh.
    // The backend refuses a stale token with 401, or with 400/403 and a JWT message.
    if (HostedAnswer::isRefusedToken(response) && mode != AuthMode::anonymous && tokenProvider_) {
        if (std::optional<std::string> token = tokenProvider_->refreshedAccessToken()) {
            logger_->warn(name + ": " + std::to_string(response.statusCode) +
                          " — token ververst, één herkansing");
            headers["Authorization"] = "Bearer " + *token;
            response = sendOnce(name, headers, bytes, maxResponseBytes, timeout);
        }
    }
    if (!response.isSuccess()) {
        fail(name, response);
    }
    return std::move(response.body);
}

HTTPResponse SupabaseFunctionClient::sendOnce(const std::string& name, const Headers& headers,
                                              const Bytes& body, std::size_t maxResponseBytes,
                                              double timeout) const {
    HTTPRequest request;
    request.maxResponseBytes = maxResponseBytes;
    request.url = functionURL(name);
    request.method = "POST";
    request.headers = headers;
    request.body = body;
    request.timeout = timeout;
    return sendForAPI(*http_, request);
}

void SupabaseFunctionClient::fail(const std::string& name, const HTTPResponse& response) const {
    std::optional<std::string> errorCode;
    std::optional<std::string> message;
    if (auto decoded = BackendErrorBody::read(response.body)) {
        errorCode = decoded->errorCode ? decoded->errorCode : decoded->code;
        message = decoded->message ? decoded->message : decoded->error;
    }
    if (!message) {
        message = SupabaseErrorText::bodyPrefix(response.body);
    }
    logger_->warn(name + " failed: HTTP " + std::to_string(response.statusCode) +
                  " code=" + errorCode.value_or("-"));
    throw APIError::http(response.statusCode, std::move(errorCode), std::move(message));
}

} // namespace kavelo
