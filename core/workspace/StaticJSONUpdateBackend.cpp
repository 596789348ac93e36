#include "core/workspace/StaticJSONUpdateBackend.h"

#include "core/backend/APIError.h"
#include "core/backend/SendForAPI.h"
#include "core/support/CancellationToken.h"
#include "core/support/CoreJSON.h"

namespace kavelo {

StaticJSONUpdateBackend::StaticJSONUpdateBackend(std::string url, std::shared_ptr<HTTPClient> http)
    : url_(std::move(url)), http_(std::move(http)) {}

UpdatePolicy StaticJSONUpdateBackend::fetchPolicy() {
    return fetchPayload().policy;
}

std::vector<ReleaseNote> StaticJSONUpdateBackend::fetchReleaseNotes() {
    {
        std::lock_guard lock(mutex_);
        if (cached_) {
            return cached_->releaseNotes;
        }
    }
    return fetchPayload().releaseNotes;
}

UpdateDocument StaticJSONUpdateBackend::fetchPayload() {
    HTTPRequest request;
    request.url = url_;
    request.method = "GET";
    request.timeout = kTimeoutSeconds;
    request.maxResponseBytes = UpdateDocument::kMaxBytes;
    const HTTPResponse response = sendForAPI(*http_, request);
    if (!response.isSuccess()) {
        throw APIError::http(response.statusCode);
    }
    UpdateDocument document;
    try {
        document = UpdateDocument::parse(response.body);
    } catch (const DecodingError& e) {
        throw APIError::decoding(std::string("update policy: ") + e.what());
    } catch (const Json::exception& e) {
        throw APIError::decoding(std::string("update policy: ") + e.what());
    }
    std::lock_guard lock(mutex_);
    cached_ = document;
    return document;
}

} // namespace kavelo
