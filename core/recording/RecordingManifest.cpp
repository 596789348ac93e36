#include "core/recording/RecordingManifest.h"

#include "core/support/RecordingLimits.h"

#include <cmath>
#include <limits>

namespace kavelo {

namespace {

const Json& required(const Json& json, const char* key) {
    auto it = json.find(key);
    if (it == json.end() || it->is_null()) {
        throw DecodingError(std::string("manifest: missing key ") + key);
    }
    return *it;
}

// Absent and null both read as absent; a value of the wrong type fails the whole manifest.
const Json* optionalValue(const Json& json, const char* key) {
    auto it = json.find(key);
    if (it == json.end() || it->is_null()) {
        return nullptr;
    }
    return &*it;
}

std::string text(const Json& value, const char* key) {
    if (!value.is_string()) {
        throw DecodingError(std::string("manifest: ") + key + " is not a text");
    }
    return value.get<std::string>();
}

int integer(const Json& value, const char* key) {
    if (!value.is_number_integer()) {
        throw DecodingError(std::string("manifest: ") + key + " is not an integer");
    }
    auto n = value.get<long long>();
    if (n < std::numeric_limits<int>::min() || n > std::numeric_limits<int>::max()) {
        throw DecodingError(std::string("manifest: ") + key + " is out of range");
    }
    return static_cast<int>(n);
}

TimePoint date(const Json& value, const char* key) {
    return CoreJSON::parseDate(text(value, key));
}

} // namespace

Json RecordingManifest::toJson() const {
    Json json{{"version", version},
              {"recordingId", recordingId},
              {"stage", std::string(toRaw(stage))},
              {"startedAt", CoreJSON::formatDate(startedAt)},
              {"isPaused", isPaused},
              {"totalPausedMs", totalPausedMs}};
    if (recordingSecret) {
        json["recordingSecret"] = *recordingSecret;
    }
    if (pausedAt) {
        json["pausedAt"] = CoreJSON::formatDate(*pausedAt);
    }
    if (meetingName) {
        json["meetingName"] = *meetingName;
    }
    if (lastSequence) {
        json["lastSequence"] = *lastSequence;
    }
    if (elapsedSeconds) {
        json["elapsedSeconds"] = *elapsedSeconds;
    }
    if (userId) {
        json["userId"] = *userId;
    }
    if (finalizeRequest) {
        json["finalizeRequest"] = finalizeRequest->toJson();
    }
    if (finalizeAccepted) {
        json["finalizeAccepted"] = true;
    }
    return json;
}

RecordingManifest RecordingManifest::fromJson(const Json& json) {
    if (!json.is_object()) {
        throw DecodingError("manifest: not an object");
    }
    RecordingManifest m;
    m.version = integer(required(json, "version"), "version");
    m.recordingId = text(required(json, "recordingId"), "recordingId");
    // The same rule as for the backend's answer at the start: a recording that could begin can be found
    // again, and an id that could name another place on disk never reaches the chunk store.
    if (!RecordingLimits::isRecordingId(m.recordingId)) {
        throw DecodingError("manifest: recordingId is not a usable recording id");
    }
    auto stage = fromRaw<Stage>(text(required(json, "stage"), "stage"));
    if (!stage) {
        throw DecodingError("manifest: unknown stage");
    }
    m.stage = *stage;
    m.startedAt = date(required(json, "startedAt"), "startedAt");
    const Json& paused = required(json, "isPaused");
    if (!paused.is_boolean()) {
        throw DecodingError("manifest: isPaused is not a boolean");
    }
    m.isPaused = paused.get<bool>();
    const Json& total = required(json, "totalPausedMs");
    if (!total.is_number() || !std::isfinite(total.get<double>()) || total.get<double>() < 0) {
        throw DecodingError("manifest: totalPausedMs is not a duration");
    }
    m.totalPausedMs = total.get<double>();
    if (auto v = optionalValue(json, "recordingSecret")) {
        m.recordingSecret = text(*v, "recordingSecret");
        if (!RecordingLimits::isRecordingSecret(*m.recordingSecret)) {
            throw DecodingError("manifest: recordingSecret is not a usable secret");
        }
    }
    if (auto v = optionalValue(json, "pausedAt")) {
        m.pausedAt = date(*v, "pausedAt");
    }
    if (auto v = optionalValue(json, "meetingName")) {
        m.meetingName = text(*v, "meetingName");
    }
    if (auto v = optionalValue(json, "lastSequence")) {
        m.lastSequence = integer(*v, "lastSequence");
        // Recovery counts up to this number; 0 is a stop before the first chunk.
        if (*m.lastSequence != 0 && !RecordingLimits::isSequence(*m.lastSequence)) {
            throw DecodingError("manifest: lastSequence is out of range");
        }
    }
    if (auto v = optionalValue(json, "elapsedSeconds")) {
        m.elapsedSeconds = integer(*v, "elapsedSeconds");
    }
    if (auto v = optionalValue(json, "userId")) {
        m.userId = text(*v, "userId");
    }
    if (auto v = optionalValue(json, "finalizeRequest")) {
        m.finalizeRequest = FinalizePayload::fromJson(*v);
        if (m.finalizeRequest->recordingId != m.recordingId) {
            throw DecodingError("manifest: finalizeRequest is for another recording");
        }
    }
    if (auto v = optionalValue(json, "finalizeAccepted")) {
        if (!v->is_boolean()) {
            throw DecodingError("manifest: finalizeAccepted is not a boolean");
        }
        m.finalizeAccepted = v->get<bool>();
    }
    return m;
}

} // namespace kavelo
