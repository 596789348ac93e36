#include "core/backend/DiagnosticsPayload.h"

#include "core/backend/WireJson.h"

namespace kavelo {

Json DiagnosticsLogEntry::toJson() const {
    return Json{{"t", t}, {"level", level}, {"msg", msg}};
}

DiagnosticsLogEntry DiagnosticsLogEntry::fromJson(const Json& json) {
    const Json& o = WireJson::object(json, "DiagnosticsLogEntry");
    return {WireJson::requireDouble(o, "t"), WireJson::requireString(o, "level"),
            WireJson::requireString(o, "msg")};
}

Json DiagnosticsSummary::toJson() const {
    return Json{{"chunksReceived", chunksReceived}, {"chunksUploaded", chunksUploaded},
                {"chunksFailed", chunksFailed},     {"errorCount", errorCount},
                {"warnCount", warnCount},           {"durationMs", durationMs}};
}

DiagnosticsSummary DiagnosticsSummary::fromJson(const Json& json) {
    const Json& o = WireJson::object(json, "DiagnosticsSummary");
    DiagnosticsSummary s;
    s.chunksReceived = WireJson::requireInt(o, "chunksReceived");
    s.chunksUploaded = WireJson::requireInt(o, "chunksUploaded");
    s.chunksFailed = WireJson::requireInt(o, "chunksFailed");
    s.errorCount = WireJson::requireInt(o, "errorCount");
    s.warnCount = WireJson::requireInt(o, "warnCount");
    s.durationMs = WireJson::requireDouble(o, "durationMs");
    return s;
}

Json DiagnosticsPayload::toJson() const {
    Json json = Json::object();
    WireJson::put(json, "lastSequence", lastSequence);
    WireJson::put(json, "receivedCount", receivedCount);
    WireJson::put(json, "uploadedCount", uploadedCount);
    json["failedChunks"] = failedChunks;
    WireJson::put(json, "recordingId", recordingId);
    json["sessionStart"] = sessionStart;
    json["platform"] = platform;
    Json lines = Json::array();
    for (const auto& entry : logs) {
        lines.push_back(entry.toJson());
    }
    json["logs"] = std::move(lines);
    json["summary"] = summary.toJson();
    WireJson::put(json, "isPaused", isPaused);
    WireJson::put(json, "totalPausedMs", totalPausedMs);
    WireJson::put(json, "fatalErrorCode", fatalErrorCode);
    WireJson::put(json, "fatalErrorMessage", fatalErrorMessage);
    WireJson::put(json, "recoveryMarker", recoveryMarker);
    return json;
}

DiagnosticsPayload DiagnosticsPayload::fromJson(const Json& json) {
    const Json& o = WireJson::object(json, "DiagnosticsPayload");
    DiagnosticsPayload p;
    p.lastSequence = WireJson::optionalInt(o, "lastSequence");
    p.receivedCount = WireJson::optionalInt(o, "receivedCount");
    p.uploadedCount = WireJson::optionalInt(o, "uploadedCount");
    p.failedChunks = WireJson::requireIntArray(o, "failedChunks");
    p.recordingId = WireJson::optionalString(o, "recordingId");
    p.sessionStart = WireJson::requireDouble(o, "sessionStart");
    p.platform = WireJson::requireString(o, "platform");
    for (const Json& line : WireJson::require(o, "logs", true)) {
        p.logs.push_back(DiagnosticsLogEntry::fromJson(line));
    }
    p.summary = DiagnosticsSummary::fromJson(WireJson::require(o, "summary"));
    p.isPaused = WireJson::optionalBool(o, "isPaused");
    p.totalPausedMs = WireJson::optionalDouble(o, "totalPausedMs");
    p.fatalErrorCode = WireJson::optionalString(o, "fatalErrorCode");
    p.fatalErrorMessage = WireJson::optionalString(o, "fatalErrorMessage");
    p.recoveryMarker = WireJson::optionalString(o, "recoveryMarker");
    return p;
}

} // namespace kavelo
