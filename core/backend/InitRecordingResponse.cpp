#include "core/backend/InitRecordingResponse.h"

#include "core/backend/WireJson.h"

namespace kavelo {

Json InitRecordingResponse::toJson() const {
    Json json = Json::object();
    json["recording_id"] = recordingId;
    WireJson::put(json, "recording_secret", recordingSecret);
    WireJson::put(json, "deduplicated", deduplicated);
    return json;
}

InitRecordingResponse InitRecordingResponse::fromJson(const Json& json) {
    const Json& o = WireJson::object(json, "InitRecordingResponse");
    InitRecordingResponse r;
    r.recordingId = WireJson::requireString(o, "recording_id");
    r.recordingSecret = WireJson::optionalString(o, "recording_secret");
    r.deduplicated = WireJson::optionalBool(o, "deduplicated");
    return r;
}

} // namespace kavelo
