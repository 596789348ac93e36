#include "core/backend/FinalizeRecipient.h"

#include "core/backend/WireJson.h"

namespace kavelo {

Json FinalizeRecipient::toJson() const {
    Json json = Json::object();
    json["email"] = email;
    WireJson::put(json, "name", name);
    return json;
}

FinalizeRecipient FinalizeRecipient::fromJson(const Json& json) {
    const Json& o = WireJson::object(json, "FinalizeRecipient");
    return {WireJson::requireString(o, "email"), WireJson::optionalString(o, "name")};
}

} // namespace kavelo
