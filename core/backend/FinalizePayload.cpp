#include "core/backend/FinalizePayload.h"

#include "core/backend/WireJson.h"

namespace kavelo {

Json FinalizePayload::toJson() const {
    Json json = Json::object();
    json["recording_id"] = recordingId;
    json["user_id"] = userId;
    json["user_email"] = userEmail;
    json["user_name"] = userName;
    WireJson::put(json, "meeting_name", meetingName);
    Json list = Json::array();
    for (const auto& r : recipients) {
        list.push_back(r.toJson());
    }
    json["recipients"] = std::move(list);
    WireJson::put(json, "participants", participants);
    json["upload_mode"] = uploadMode;
    json["include_transcription"] = includeTranscription;
    WireJson::put(json, "attachment_word", attachmentWord);
    WireJson::put(json, "speaker_count", speakerCount);
    WireJson::put(json, "speaker_count_mode", speakerCountMode);
    json["output_language"] = outputLanguage;
    json["diagnostics"] = diagnostics.toJson();
    WireJson::put(json, "prompt_template_id", promptTemplateId);
    return json;
}

FinalizePayload FinalizePayload::fromJson(const Json& json) {
    const Json& o = WireJson::object(json, "FinalizePayload");
    FinalizePayload p;
    p.recordingId = WireJson::requireString(o, "recording_id");
    p.userId = WireJson::requireString(o, "user_id");
    p.userEmail = WireJson::requireString(o, "user_email");
    p.userName = WireJson::requireString(o, "user_name");
    p.meetingName = WireJson::optionalString(o, "meeting_name");
    for (const Json& r : WireJson::require(o, "recipients", true)) {
        p.recipients.push_back(FinalizeRecipient::fromJson(r));
    }
    p.participants = WireJson::optionalStringArray(o, "participants");
    p.uploadMode = WireJson::requireString(o, "upload_mode");
    p.includeTranscription = WireJson::requireBool(o, "include_transcription");
    p.attachmentWord = WireJson::optionalBool(o, "attachment_word");
    p.speakerCount = WireJson::optionalInt(o, "speaker_count");
    p.speakerCountMode = WireJson::optionalString(o, "speaker_count_mode");
    p.outputLanguage = WireJson::requireString(o, "output_language");
    p.diagnostics = DiagnosticsPayload::fromJson(WireJson::require(o, "diagnostics"));
    p.promptTemplateId = WireJson::optionalString(o, "prompt_template_id");
    return p;
}

} // namespace kavelo
