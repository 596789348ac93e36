#include "core/backend/HostedAnswer.h"

#include "core/support/CoreJSON.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <string>

namespace kavelo {

namespace {

std::optional<Json> errorObject(const HTTPResponse& response) {
    if (response.body.empty() || response.body.size() > HostedAnswer::maxInspectedBytes) {
        return std::nullopt;
    }
    try {
        Json json = CoreJSON::decode(response.body);
        if (json.is_object()) {
            return json;
        }
    } catch (const DecodingError&) {
    }
    return std::nullopt;
}

bool namesToken(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text.find("jwt") != std::string::npos || text.find("jws") != std::string::npos;
}

} // namespace

bool HostedAnswer::isDuplicateObject(const HTTPResponse& response) {
    if (response.statusCode == 409) {
        return true;
    }
    if (response.statusCode != 400) {
        return false;
    }
    auto json = errorObject(response);
    if (!json) {
        return false;
    }
    auto it = json->find("statusCode");
    if (it == json->end()) {
        return false;
    }
    return (it->is_string() && it->get<std::string>() == "409") ||
           (it->is_number_integer() && it->get<long long>() == 409);
}

bool HostedAnswer::isRefusedToken(const HTTPResponse& response) {
    if (response.statusCode == 401) {
        return true;
    }
    if (response.statusCode != 400 && response.statusCode != 403) {
        return false;
    }
    if (auto json = errorObject(response)) {
        for (const char* key : {"error", "error_code", "code", "message", "msg", "error_description"}) {
            auto it = json->find(key);
            if (it != json->end() && it->is_string() && namesToken(it->get<std::string>())) {
                return true;
            }
        }
        return false;
    }
    const auto head = std::min(response.body.size(), maxInspectedBytes);
    return namesToken(std::string(response.body.begin(), response.body.begin() + static_cast<long>(head)));
}

int HostedAnswer::meaningfulStatus(const HTTPResponse& response) {
    if (isDuplicateObject(response)) {
        return 409;
    }
    if (isRefusedToken(response)) {
        return 401;
    }
    return response.statusCode;
}

} // namespace kavelo
