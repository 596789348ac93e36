#include "core/backend/RecordingAPIBodies.h"

#include "core/backend/WireJson.h"

namespace kavelo {

Json ListChunksBody::toJson() const {
    return Json{{"recording_id", recordingId}};
}

ListChunksBody ListChunksBody::fromJson(const Json& json) {
    return {WireJson::requireString(WireJson::object(json, "ListChunksBody"), "recording_id")};
}

Json DiagnosticSyncBody::toJson() const {
    return Json{{"recording_id", recordingId},
                {"user_id", userId},
                {"diagnostic_sync", diagnosticSync},
                {"diagnostics", diagnostics.toJson()}};
}

DiagnosticSyncBody DiagnosticSyncBody::fromJson(const Json& json) {
    const Json& o = WireJson::object(json, "DiagnosticSyncBody");
    DiagnosticSyncBody b;
    b.recordingId = WireJson::requireString(o, "recording_id");
    b.userId = WireJson::requireString(o, "user_id");
    b.diagnosticSync = WireJson::requireBool(o, "diagnostic_sync");
    b.diagnostics = DiagnosticsPayload::fromJson(WireJson::require(o, "diagnostics"));
    return b;
}

Json EarlyMappingBody::toJson() const {
    return Json{{"meeting_id", meetingId}, {"on_demand", onDemand}};
}

EarlyMappingBody EarlyMappingBody::fromJson(const Json& json) {
    const Json& o = WireJson::object(json, "EarlyMappingBody");
    return {WireJson::requireString(o, "meeting_id"), WireJson::requireBool(o, "on_demand")};
}

Json EarlyMappingResponse::toJson() const {
    Json json = Json::object();
    WireJson::put(json, "status", status);
    WireJson::put(json, "reason", reason);
    return json;
}

EarlyMappingResponse EarlyMappingResponse::fromJson(const Json& json) {
    const Json& o = WireJson::object(json, "EarlyMappingResponse");
    return {WireJson::optionalString(o, "status"), WireJson::optionalString(o, "reason")};
}

} // namespace kavelo
