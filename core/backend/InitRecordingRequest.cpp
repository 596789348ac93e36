#include "core/backend/InitRecordingRequest.h"

#include "core/backend/WireJson.h"

namespace kavelo {

Json InitRecordingRequest::toJson() const {
    Json json = Json::object();
    json["user_id"] = userId;
    json["user_email"] = userEmail;
    json["user_name"] = userName;
    WireJson::put(json, "meeting_name", meetingName);
    json["source"] = source;
    json["app_version"] = appVersion;
    json["language"] = language;
    WireJson::put(json, "organization_id", organizationId);
    WireJson::put(json, "audio_mode", audioMode);
    return json;
}

InitRecordingRequest InitRecordingRequest::fromJson(const Json& json) {
    const Json& o = WireJson::object(json, "InitRecordingRequest");
    InitRecordingRequest r;
    r.userId = WireJson::requireString(o, "user_id");
    r.userEmail = WireJson::requireString(o, "user_email");
    r.userName = WireJson::requireString(o, "user_name");
    r.meetingName = WireJson::optionalString(o, "meeting_name");
    r.source = WireJson::requireString(o, "source");
    r.appVersion = WireJson::requireString(o, "app_version");
    r.language = WireJson::requireString(o, "language");
    r.organizationId = WireJson::optionalString(o, "organization_id");
    r.audioMode = WireJson::optionalString(o, "audio_mode");
    return r;
}

} // namespace kavelo
