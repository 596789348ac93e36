#include "core/transport/LiveSignedURLProvider.h"

#include "core/backend/APIError.h"
#include "core/backend/WireJson.h"
#include "core/support/CoreJSON.h"
#include "core/support/RecordingLimits.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>

namespace kavelo {

namespace {

struct CurlUrlDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};

} // namespace

LiveSignedURLProvider::LiveSignedURLProvider(AppConfig config, std::shared_ptr<HTTPClient> http)
    : config_(std::move(config)), http_(std::move(http)) {}

std::vector<SignedURL> LiveSignedURLProvider::fetchSignedURLs(const std::string& recordingId,
                                                              const std::string& recordingSecret,
                                                              int startSequence, int count) {
    std::string base = config_.supabaseUrl;
    while (!base.empty() && base.back() == '/') {
        base.pop_back();
    }
    HTTPRequest request;
    request.url = base + "/functions/v1/generate-upload-urls";
    request.method = "POST";
    // The secret is the only credential: no apikey, no Authorization.
    request.headers = {{"Content-Type", "application/json"}, {"x-recording-secret", recordingSecret}};
    request.body = CoreJSON::encodeBytes(
        Json{{"recording_id", recordingId}, {"start_sequence", startSequence}, {"count", count}});
    request.timeout = 20;

    HTTPResponse response = http_->send(request);
    if (!response.isSuccess()) {
        throw APIError::http(response.statusCode);
    }
    Json body = CoreJSON::decode(response.body);
    const Json& urls =
        WireJson::require(WireJson::object(body, "generate-upload-urls response"), "urls", true);
    // The worker keeps these in its pool: more than were asked for, or numbers no chunk of ours can
    // have, would only fill memory.
    if (urls.size() > static_cast<std::size_t>(std::max(count, 0))) {
        throw DecodingError("generate-upload-urls: " + std::to_string(urls.size()) + " URLs for " +
                            std::to_string(count) + " asked");
    }
    std::vector<SignedURL> out;
    for (const Json& item : urls) {
        const Json& entry = WireJson::object(item, "upload URL entry");
        SignedURL url{WireJson::requireInt(entry, "sequence"), WireJson::requireString(entry, "url")};
        if (RecordingLimits::isSequence(url.sequence) && isUsableUploadURL(url.url)) {
            out.push_back(std::move(url));
        }
    }
    return out;
}

bool LiveSignedURLProvider::isUsableUploadURL(const std::string& text) {
    std::unique_ptr<CURLU, CurlUrlDeleter> handle(curl_url());
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
        return false;
    }
    char* scheme = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK || scheme == nullptr) {
        return false;
    }
    std::string value(scheme);
    curl_free(scheme);
    // Chunks go to the network only: a file: or other URL from the server is never written to.
    return value == "https" || value == "http";
}

} // namespace kavelo
