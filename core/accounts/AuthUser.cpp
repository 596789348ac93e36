#include "core/accounts/AuthUser.h"

namespace kavelo {

Json AuthUser::toJson() const {
    Json json = {{"id", id}, {"email", email}};
    if (workProfile) {
        json["workProfile"] = *workProfile;
    }
    if (createdAt) {
        json["createdAt"] = CoreJSON::formatDate(*createdAt);
    }
    return json;
}

AuthUser AuthUser::fromJson(const Json& json) {
    if (!json.is_object()) {
        throw DecodingError("user: expected an object");
    }
    auto requiredString = [&](const char* key) {
        auto it = json.find(key);
        if (it == json.end() || !it->is_string()) {
            throw DecodingError(std::string("user.") + key + ": expected a string");
        }
        return it->get<std::string>();
    };
    AuthUser user;
    user.id = requiredString("id");
    user.email = requiredString("email");
    if (auto it = json.find("workProfile"); it != json.end() && !it->is_null()) {
        if (!it->is_string()) {
            throw DecodingError("user.workProfile: expected a string");
        }
        user.workProfile = it->get<std::string>();
    }
    if (auto it = json.find("createdAt"); it != json.end() && !it->is_null()) {
        if (!it->is_string()) {
            throw DecodingError("user.createdAt: expected a date string");
        }
        user.createdAt = CoreJSON::parseDate(it->get<std::string>());
    }
    return user;
}

} // namespace kavelo
