#include "core/mock/MockUploadHTTPClient.h"

#include "core/mock/MockBackend.h"

#include <curl/curl.h>

#include <cctype>
#include <charconv>
#include <optional>
#include <vector>

namespace kavelo {

namespace {

struct CurlUrlDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};

std::optional<std::string> urlPart(CURLU* handle, CURLUPart part) {
    char* value = nullptr;
    if (curl_url_get(handle, part, &value, 0) != CURLUE_OK || value == nullptr) {
        return std::nullopt;
    }
    std::string out(value);
    curl_free(value);
    return out;
}

std::string percentDecoded(const std::string& text) {
    auto hex = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) && hex(text[i + 2])) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// The components of a path as the platform URL type gives them: the root "/" first, then each segment.
std::vector<std::string> pathComponents(const std::string& path) {
    std::vector<std::string> out;
    if (path.starts_with("/")) {
        out.emplace_back("/");
    }
    std::size_t start = 0;
    while (start <= path.size()) {
        auto end = path.find('/', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        if (end > start) {
            out.push_back(percentDecoded(path.substr(start, end - start)));
        }
        start = end + 1;
    }
    return out;
}

std::string withoutAacSuffixes(std::string name) {
    for (auto pos = name.find(".aac"); pos != std::string::npos; pos = name.find(".aac")) {
        name.erase(pos, 4);
    }
    return name;
}

} // namespace

MockUploadHTTPClient::MockUploadHTTPClient(std::shared_ptr<MockBackend> backend)
    : backend_(std::move(backend)) {}

HTTPResponse MockUploadHTTPClient::send(const HTTPRequest& request) {
    std::unique_ptr<CURLU, CurlUrlDeleter> handle(curl_url());
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, request.url.c_str(), 0) != CURLUE_OK) {
        return {404, {}};
    }
    std::string host = urlPart(handle.get(), CURLUPART_HOST).value_or("");
    std::string path = urlPart(handle.get(), CURLUPART_PATH).value_or("");
    bool storagePath = path.find("/storage/v1/object/") != std::string::npos;
    if (host.find("mock-storage") == std::string::npos && !storagePath) {
        return {404, {}};
    }
    {
        std::lock_guard lock(mutex_);
        if (alwaysFail_) {
            return {500, {}};
        }
    }

    auto components = pathComponents(path);
    if (components.size() < 2) {
        return {400, {}};
    }
    std::string digits = withoutAacSuffixes(components.back());
    int sequence = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), sequence);
    if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) {
        return {400, {}};
    }
    std::size_t back = storagePath ? 3 : 2; // <id>/chunks/<file> on the storage path, <id>/<n> on signed URLs
    std::string folder = components.size() >= back ? components[components.size() - back] : "unknown";

    bool conflict = false;
    {
        std::lock_guard lock(mutex_);
        if (auto it = failuresPerSequence_.find(sequence);
            it != failuresPerSequence_.end() && it->second > 0) {
            --it->second;
            return {500, {}};
        }
        conflict = conflictSequences_.contains(sequence);
    }
    backend_->recordUpload(folder, sequence);
    return {conflict ? 409 : 200, {}};
}

void MockUploadHTTPClient::setFailuresPerSequence(int sequence, int n) {
    std::lock_guard lock(mutex_);
    failuresPerSequence_[sequence] = n;
}

void MockUploadHTTPClient::setAlwaysFail(bool on) {
    std::lock_guard lock(mutex_);
    alwaysFail_ = on;
}

void MockUploadHTTPClient::setConflictSequences(std::set<int> sequences) {
    std::lock_guard lock(mutex_);
    conflictSequences_ = std::move(sequences);
}

} // namespace kavelo
