#include "tools/devserver/DevUser.h"

namespace kavelo {

namespace {

Json optionalText(const std::optional<std::string>& value) {
    return value ? Json(*value) : Json(nullptr);
}

std::optional<std::string> readOptionalText(const Json& json, const char* key) {
    auto it = json.find(key);
    if (it == json.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

} // namespace

Json DevUser::publicJson() const {
    Json metadata = userMetadata;
    if (!fullName.empty() && !metadata.contains("full_name")) {
        metadata["full_name"] = fullName;
    }
    Json identities = Json::array();
    for (const auto& provider : providers) {
        identities.push_back(
            Json{{"provider", provider}, {"user_id", id}, {"identity_data", {{"email", email}}}});
    }
    return Json{
        {"id", id},
        {"aud", "authenticated"},
        {"role", "authenticated"},
        {"email", email},
        {"created_at", CoreJSON::formatDateFractional(createdAt)},
        {"email_confirmed_at", emailConfirmed ? Json(CoreJSON::formatDate(createdAt)) : Json(nullptr)},
        {"user_metadata", metadata},
        {"app_metadata",
         {{"provider", providers.empty() ? "email" : providers.front()}, {"providers", providers}}},
        {"identities", identities}};
}

Json DevUser::profileRow() const {
    return Json{{"user_id", id},
                {"email", email},
                {"full_name", fullName.empty() ? Json(nullptr) : Json(fullName)},
                {"job_title", optionalText(jobTitle)},
                {"company", optionalText(company)},
                {"organization_id", optionalText(organizationId)}};
}

Json DevUser::toJson() const {
    return Json{{"id", id},
                {"email", email},
                {"password", password},
                {"full_name", fullName},
                {"providers", providers},
                {"user_metadata", userMetadata},
                {"created_at", std::chrono::duration<double>(createdAt.time_since_epoch()).count()},
                {"email_confirmed", emailConfirmed},
                {"job_title", optionalText(jobTitle)},
                {"company", optionalText(company)},
                {"organization_id", optionalText(organizationId)}};
}

DevUser DevUser::fromJson(const Json& json) {
    DevUser user;
    user.id = json.at("id").get<std::string>();
    user.email = json.at("email").get<std::string>();
    user.password = json.value("password", "");
    user.fullName = json.value("full_name", "");
    user.providers = json.value("providers", std::vector<std::string>{"email"});
    user.userMetadata = json.value("user_metadata", Json::object());
    user.createdAt = addSeconds(TimePoint{}, json.value("created_at", 0.0));
    user.emailConfirmed = json.value("email_confirmed", true);
    user.jobTitle = readOptionalText(json, "job_title");
    user.company = readOptionalText(json, "company");
    user.organizationId = readOptionalText(json, "organization_id");
    return user;
}

} // namespace kavelo
