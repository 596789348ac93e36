#include "core/workspace/FeatureFlags.h"

#include "core/backend/WireJson.h"

#include <algorithm>

namespace kavelo {

FeatureFlags FeatureFlags::fromJson(const Json& json) {
    const Json& object = WireJson::object(json, "feature flags");
    FeatureFlags flags;
    flags.templateChooser = WireJson::requireBool(object, "templateChooser");
    flags.meetingDetection = WireJson::requireBool(object, "meetingDetection");
    flags.calendarIntegration = WireJson::requireBool(object, "calendarIntegration");
    flags.connectors = WireJson::requireBool(object, "connectors");
    flags.wordAttachment = WireJson::requireBool(object, "wordAttachment");
    const Json& raw = WireJson::require(object, "raw");
    if (raw.size() > kMaxRawFlags) {
        throw DecodingError("more than " + std::to_string(kMaxRawFlags) + " flags");
    }
    for (const auto& [name, value] : raw.items()) {
        if (!value.is_boolean()) {
            throw DecodingError("flag " + std::to_string(flags.raw.size()) + " is not a flag");
        }
        flags.raw[name] = value.get<bool>();
    }
    if (!isAcceptable(flags.raw)) {
        throw DecodingError("a flag name is longer than " + std::to_string(kMaxNameBytes) + " bytes");
    }
    return flags;
}

Json FeatureFlags::toJson() const {
    Json rawJson = Json::object();
    for (const auto& [name, value] : raw) {
        rawJson[name] = value;
    }
    return Json{{"templateChooser", templateChooser},         {"meetingDetection", meetingDetection},
                {"calendarIntegration", calendarIntegration}, {"connectors", connectors},
                {"wordAttachment", wordAttachment},           {"raw", std::move(rawJson)}};
}

bool FeatureFlags::isAcceptable(const std::map<std::string, bool>& raw) {
    return raw.size() <= kMaxRawFlags && std::all_of(raw.begin(), raw.end(), [](const auto& entry) {
               return entry.first.size() <= kMaxNameBytes;
           });
}

} // namespace kavelo
