#include "core/backend/InitRecordingResponse.h"

#include "core/backend/WireJson.h"
#include "core/support/RecordingLimits.h"

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
    // The id becomes a folder, a manifest entry and part of upload paths; the secret a header. Refusing a
    // bad one here keeps every later step, recovery after a crash included, on ids it can handle.
    if (!RecordingLimits::isRecordingId(r.recordingId)) {
        throw DecodingError("recording_id is not a usable recording id");
    }
    r.recordingSecret = WireJson::optionalString(o, "recording_secret");
    if (r.recordingSecret && !RecordingLimits::isRecordingSecret(*r.recordingSecret)) {
        throw DecodingError("recording_secret is not a usable secret");
    }
    r.deduplicated = WireJson::optionalBool(o, "deduplicated");
    return r;
}

} // namespace kavelo
