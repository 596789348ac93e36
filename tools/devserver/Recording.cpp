#include "tools/devserver/Recording.h"

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

double epochSeconds(TimePoint t) {
    return std::chrono::duration<double>(t.time_since_epoch()).count();
}

TimePoint fromEpochSeconds(double s) {
    return addSeconds(TimePoint{}, s);
}

} // namespace

std::vector<std::string> Recording::participantsAt(TimePoint now) const {
    if (mappingDueAt && now >= *mappingDueAt) {
        return mappingResultNames;
    }
    return participants;
}

std::optional<std::string> Recording::mappingStatusAt(TimePoint now) const {
    if (mappingDueAt && now >= *mappingDueAt) {
        return mappingResultStatus;
    }
    return mappingStatus;
}

Json Recording::meetingRow(TimePoint now) const {
    return Json{{"id", meetingId},
                {"recording_id", id},
                {"user_id", userId},
                {"meeting_name", optionalText(meetingName)},
                {"organization_id", optionalText(organizationId)},
                {"created_at", CoreJSON::formatDate(createdAt)},
                {"participants", participantsAt(now)},
                {"early_mapping_status", optionalText(mappingStatusAt(now))},
                {"status", finalizeRequests.empty() ? "recording" : "queued"}};
}

Json Recording::statusRow(TimePoint now, double step) const {
    Json row{{"meeting_id", meetingId}, {"phase", "recording"}, {"delivered_at", nullptr}};
    if (!finalizedAt) {
        return row;
    }
    const double elapsed = secondsBetween(*finalizedAt, now);
    if (elapsed < step) {
        row["phase"] = "processing";
    } else if (elapsed < 2 * step) {
        row["phase"] = "completed";
    } else {
        row["phase"] = "sent";
        row["delivered_at"] = CoreJSON::formatDate(addSeconds(*finalizedAt, 2 * step));
        const Json& first = finalizeRequests.empty() ? Json() : finalizeRequests.front();
        auto recipients = first.is_object() ? first.find("recipients") : first.end();
        row["recipient_count"] =
            first.is_object() && recipients != first.end() && recipients->is_array() ? recipients->size() : 0;
    }
    return row;
}

Json Recording::toJson() const {
    Json json{{"id", id},
              {"secret", secret},
              {"user_id", userId},
              {"user_email", userEmail},
              {"user_name", userName},
              {"meeting_name", optionalText(meetingName)},
              {"source", source},
              {"app_version", appVersion},
              {"language", language},
              {"organization_id", optionalText(organizationId)},
              {"audio_mode", optionalText(audioMode)},
              {"created_at", epochSeconds(createdAt)},
              {"meeting_id", meetingId},
              {"meeting_visible_at", epochSeconds(meetingVisibleAt)},
              {"participants", participants},
              {"mapping_status", optionalText(mappingStatus)},
              {"mapping_due_at", mappingDueAt ? Json(epochSeconds(*mappingDueAt)) : Json(nullptr)},
              {"mapping_result_status", mappingResultStatus},
              {"mapping_result_names", mappingResultNames},
              {"finalize_requests", finalizeRequests},
              {"finalized_at", finalizedAt ? Json(epochSeconds(*finalizedAt)) : Json(nullptr)},
              {"finalize_keys", finalizeKeys},
              {"finalize_repeats", finalizeRepeats},
              {"diagnostic_syncs", diagnosticSyncs}};
    return json;
}

Recording Recording::fromJson(const Json& json) {
    Recording r;
    r.id = json.at("id").get<std::string>();
    r.secret = json.at("secret").get<std::string>();
    r.userId = json.value("user_id", "");
    r.userEmail = json.value("user_email", "");
    r.userName = json.value("user_name", "");
    r.meetingName = readOptionalText(json, "meeting_name");
    r.source = json.value("source", "");
    r.appVersion = json.value("app_version", "");
    r.language = json.value("language", "");
    r.organizationId = readOptionalText(json, "organization_id");
    r.audioMode = readOptionalText(json, "audio_mode");
    r.createdAt = fromEpochSeconds(json.value("created_at", 0.0));
    r.meetingId = json.at("meeting_id").get<std::string>();
    r.meetingVisibleAt = fromEpochSeconds(json.value("meeting_visible_at", 0.0));
    r.participants = json.value("participants", std::vector<std::string>{});
    r.mappingStatus = readOptionalText(json, "mapping_status");
    if (auto due = json.find("mapping_due_at"); due != json.end() && due->is_number()) {
        r.mappingDueAt = fromEpochSeconds(due->get<double>());
    }
    r.mappingResultStatus = json.value("mapping_result_status", "");
    r.mappingResultNames = json.value("mapping_result_names", std::vector<std::string>{});
    r.finalizeRequests = json.value("finalize_requests", std::vector<Json>{});
    r.finalizeKeys = json.value("finalize_keys", std::vector<std::string>{});
    if (auto at = json.find("finalized_at"); at != json.end() && at->is_number()) {
        r.finalizedAt = fromEpochSeconds(at->get<double>());
    }
    r.finalizeRepeats = json.value("finalize_repeats", 0);
    r.diagnosticSyncs = json.value("diagnostic_syncs", std::vector<Json>{});
    return r;
}

} // namespace kavelo
