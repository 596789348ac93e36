#include "core/backend/SupabaseRestClient.h"

#include "core/backend/HostedAnswer.h"
#include "core/backend/SupabaseErrorText.h"
#include "core/support/PercentEncoding.h"

#include <curl/curl.h>

#include <cctype>
#include <memory>
#include <vector>

namespace kavelo {

namespace {

constexpr double kRestTimeout = 15.0;
constexpr double kStorageTimeout = 30.0;

// Appends query items to a URL through libcurl's URL builder, which percent-encodes each item.
std::string withQuery(const std::string& url, const std::vector<std::pair<std::string, std::string>>& items) {
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> builder(curl_url(), curl_url_cleanup);
    if (!builder || curl_url_set(builder.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
        throw TransportError(TransportError::Kind::other, "unsupported URL");
    }
    for (const auto& [key, value] : items) {
        std::string item = key + "=" + value;
        if (curl_url_set(builder.get(), CURLUPART_QUERY, item.c_str(), CURLU_APPENDQUERY | CURLU_URLENCODE) !=
            CURLUE_OK) {
            throw TransportError(TransportError::Kind::other, "unsupported URL");
        }
    }
    char* out = nullptr;
    if (curl_url_get(builder.get(), CURLUPART_URL, &out, 0) != CURLUE_OK) {
        throw TransportError(TransportError::Kind::other, "unsupported URL");
    }
    std::string result = out;
    curl_free(out);
    return result;
}

HTTPRequest makeRequest(std::string url, std::string method, std::map<std::string, std::string> headers,
                        std::optional<Bytes> body, double timeout) {
    HTTPRequest request;
    request.url = std::move(url);
    request.method = std::move(method);
    request.headers = std::move(headers);
    request.body = std::move(body);
    request.timeout = timeout;
    return request;
}

} // namespace

SupabaseRestClient::SupabaseRestClient(AppConfig config, std::shared_ptr<HTTPClient> http,
                                       std::shared_ptr<AccessTokenProvider> tokenProvider)
    : config_(std::move(config)), http_(std::move(http)), tokenProvider_(std::move(tokenProvider)) {}

std::map<std::string, std::string> SupabaseRestClient::headers() const {
    if (!tokenProvider_) {
        throw APIError::unauthenticated();
    }
    std::optional<std::string> token = tokenProvider_->currentAccessToken();
    if (!token) {
        throw APIError::unauthenticated();
    }
    return {{"apikey", config_.anonKey},
            {"Authorization", "Bearer " + *token},
            {"Content-Type", "application/json"}};
}

HTTPResponse SupabaseRestClient::perform(HTTPRequest request) const {
    HTTPResponse response = http_->send(request);
    // Tables answer a stale token with 401; storage with 400 or 403 and a JWT message.
    if (HostedAnswer::isRefusedToken(response) && tokenProvider_) {
        if (std::optional<std::string> token = tokenProvider_->refreshedAccessToken()) {
            request.headers["Authorization"] = "Bearer " + *token;
            return http_->send(request);
        }
    }
    return response;
}

Bytes SupabaseRestClient::run(HTTPRequest request) const {
    HTTPResponse response = perform(std::move(request));
    if (!response.isSuccess()) {
        throw APIError::http(response.statusCode, std::nullopt, SupabaseErrorText::bodyPrefix(response.body));
    }
    return std::move(response.body);
}

std::string SupabaseRestClient::tableURL(const std::string& table, const Filters& filters) const {
    std::vector<std::pair<std::string, std::string>> items(filters.begin(), filters.end());
    return withQuery(config_.supabaseUrl + "/rest/v1/" + PercentEncoding::path(table), items);
}

Bytes SupabaseRestClient::select(const std::string& table, const std::string& columns, const Filters& filters,
                                 std::optional<int> limit, std::size_t maxResponseBytes) const {
    std::vector<std::pair<std::string, std::string>> items{{"select", columns}};
    items.insert(items.end(), filters.begin(), filters.end());
    if (limit) {
        items.emplace_back("limit", std::to_string(*limit));
    }
    std::string url = withQuery(config_.supabaseUrl + "/rest/v1/" + PercentEncoding::path(table), items);
    HTTPRequest request = makeRequest(std::move(url), "GET", headers(), std::nullopt, kRestTimeout);
    request.maxResponseBytes = maxResponseBytes;
    return run(std::move(request));
}

Bytes SupabaseRestClient::insert(const std::string& table, const Json& values) const {
    auto h = headers();
    h["Prefer"] = "return=representation";
    return run(
        makeRequest(tableURL(table, {}), "POST", std::move(h), CoreJSON::encodeBytes(values), kRestTimeout));
}

Bytes SupabaseRestClient::patch(const std::string& table, const Filters& filters, const Json& values) const {
    auto h = headers();
    h["Prefer"] = "return=representation";
    return run(makeRequest(tableURL(table, filters), "PATCH", std::move(h), CoreJSON::encodeBytes(values),
                           kRestTimeout));
}

void SupabaseRestClient::deleteRows(const std::string& table, const Filters& filters) const {
    run(makeRequest(tableURL(table, filters), "DELETE", headers(), std::nullopt, kRestTimeout));
}

Bytes SupabaseRestClient::rpc(const std::string& name, const Bytes& body,
                              std::size_t maxResponseBytes) const {
    HTTPRequest request = makeRequest(config_.supabaseUrl + "/rest/v1/rpc/" + PercentEncoding::path(name),
                                      "POST", headers(), body, kRestTimeout);
    request.maxResponseBytes = maxResponseBytes;
    return run(std::move(request));
}

std::string SupabaseRestClient::uploadStorageObject(const std::string& bucket, const std::string& path,
                                                    const Bytes& data, const std::string& contentType) const {
    auto h = headers();
    h["Content-Type"] = contentType;
    h["x-upsert"] = "true";
    const std::string object = PercentEncoding::path(bucket) + "/" + PercentEncoding::path(path);
    run(makeRequest(config_.supabaseUrl + "/storage/v1/object/" + object, "POST", std::move(h), data,
                    kStorageTimeout));
    return config_.supabaseUrl + "/storage/v1/object/public/" + object;
}

} // namespace kavelo
