#include "core/backend/Backoff.h"
#include "core/backend/FinalizePayload.h"
#include "core/backend/InitRecordingRequest.h"
#include "core/backend/InitRecordingResponse.h"
#include "core/backend/RecordingAPIBodies.h"

#include <gtest/gtest.h>

#include <set>

namespace kavelo {
namespace {

std::set<std::string> keysOf(const Json& object) {
    std::set<std::string> keys;
    for (const auto& [key, value] : object.items()) {
        keys.insert(key);
    }
    return keys;
}

DiagnosticsPayload fullDiagnostics() {
    DiagnosticsPayload d;
    d.lastSequence = 42;
    d.receivedCount = 41;
    d.uploadedCount = 40;
    d.failedChunks = {7, 9};
    d.recordingId = "rec-1";
    d.sessionStart = 1772360130123.0;
    d.platform = "linux";
    d.logs = {{1772360130200.5, "info", "session start"}, {1772360131000.0, "warn", "slow"}};
    d.summary = {41, 40, 2, 1, 3, 2500.5};
    d.isPaused = true;
    d.totalPausedMs = 1200.0;
    d.fatalErrorCode = "NATIVE_START_FAILED";
    d.fatalErrorMessage = "geen microfoon";
    d.recoveryMarker = "relaunch_active";
    return d;
}

FinalizePayload fullPayload() {
    FinalizePayload p;
    p.recordingId = "rec-1";
    p.userId = "u-1";
    p.userEmail = "a@b.nl";
    p.userName = "An";
    p.meetingName = "Weekstart";
    p.recipients = {{"a@b.nl", "An"}, {"c@d.nl", std::nullopt}};
    p.participants = std::vector<std::string>{"An", "Bo"};
    p.uploadMode = "mac_audio_chunks";
    p.includeTranscription = true;
    p.attachmentWord = false;
    p.speakerCount = 3;
    p.speakerCountMode = "exact";
    p.outputLanguage = "nl";
    p.diagnostics = fullDiagnostics();
    p.promptTemplateId = "sys-1";
    return p;
}

TEST(WireRecords, InitRecordingResponseNeedsSnakeCaseIdAndKeepsOptionalsAbsent) {
    auto minimal = InitRecordingResponse::fromJson(Json::parse(R"({"recording_id":"r"})"));
    EXPECT_EQ(minimal.recordingId, "r");
    EXPECT_FALSE(minimal.recordingSecret);
    EXPECT_FALSE(minimal.deduplicated);

    auto full = InitRecordingResponse::fromJson(
        Json::parse(R"({"recording_id":"r","recording_secret":"s","deduplicated":true,"extra":1})"));
    EXPECT_EQ(full, (InitRecordingResponse{"r", "s", true}));
    EXPECT_EQ(InitRecordingResponse::fromJson(full.toJson()), full);

    EXPECT_THROW(InitRecordingResponse::fromJson(Json::parse(R"({"recordingId":"r"})")), DecodingError);
    EXPECT_THROW(InitRecordingResponse::fromJson(Json::parse(R"({"recording_id":7})")), DecodingError);
    EXPECT_THROW(InitRecordingResponse::fromJson(Json::parse(R"({"recording_id":"r","deduplicated":"yes"})")),
                 DecodingError);
    EXPECT_THROW(InitRecordingResponse::fromJson(Json::parse("[]")), DecodingError);
    // null counts as absent, as a typed decoder reads it
    EXPECT_FALSE(
        InitRecordingResponse::fromJson(Json::parse(R"({"recording_id":"r","recording_secret":null})"))
            .recordingSecret);

    // An id becomes a folder and a path, a secret a header: what cannot be both is refused at the door.
    for (const std::string& id :
         {std::string(), std::string("a/b"), std::string("a:b"), std::string(".."), std::string("..."),
          std::string("../../etc"), std::string("a\\b"), std::string("a b"), std::string("r\0x", 3),
          std::string(65, 'r'), std::string("caf\xc3\xa9")}) {
        EXPECT_THROW(InitRecordingResponse::fromJson(Json{{"recording_id", id}}), DecodingError) << id;
    }
    EXPECT_EQ(InitRecordingResponse::fromJson(Json{{"recording_id", "4f1c-a_b.c~d"}}).recordingId,
              "4f1c-a_b.c~d");
    for (const std::string& secret :
         {std::string(), std::string("s\r\nx-evil: 1"), std::string("with space"), std::string(513, 's')}) {
        EXPECT_THROW(
            InitRecordingResponse::fromJson(Json{{"recording_id", "r"}, {"recording_secret", secret}}),
            DecodingError);
    }
}

TEST(WireRecords, InitRecordingRequestKeysAndOmittedOptionals) {
    InitRecordingRequest r{"u",     "e@x.nl", "Naam",       std::nullopt, "linux",
                           "1.2.3", "nl",     std::nullopt, std::nullopt};
    EXPECT_EQ(keysOf(r.toJson()), (std::set<std::string>{"user_id", "user_email", "user_name", "source",
                                                         "app_version", "language"}));
    r.meetingName = "M";
    r.organizationId = "org";
    r.audioMode = "system";
    Json json = r.toJson();
    EXPECT_EQ(json["meeting_name"], "M");
    EXPECT_EQ(json["organization_id"], "org");
    EXPECT_EQ(json["audio_mode"], "system");
    EXPECT_EQ(InitRecordingRequest::fromJson(json), r);
}

TEST(WireRecords, FinalizePayloadRoundTripsEveryFieldWithExactKeys) {
    FinalizePayload p = fullPayload();
    Json json = p.toJson();
    EXPECT_EQ(keysOf(json),
              (std::set<std::string>{"recording_id", "user_id", "user_email", "user_name", "meeting_name",
                                     "recipients", "participants", "upload_mode", "include_transcription",
                                     "attachment_word", "speaker_count", "speaker_count_mode",
                                     "output_language", "diagnostics", "prompt_template_id"}));
    EXPECT_EQ(json["recipients"][1].dump(), R"({"email":"c@d.nl"})");
    EXPECT_EQ(FinalizePayload::fromJson(Json::parse(CoreJSON::encode(json))), p);
    // keys go out sorted
    std::string text = CoreJSON::encode(json);
    EXPECT_LT(text.find("\"attachment_word\""), text.find("\"diagnostics\""));
    EXPECT_LT(text.find("\"diagnostics\""), text.find("\"user_name\""));
}

TEST(WireRecords, FinalizePayloadLeavesAbsentOptionalsOut) {
    FinalizePayload p = fullPayload();
    p.meetingName.reset();
    p.participants.reset();
    p.attachmentWord.reset();
    p.speakerCount.reset();
    p.speakerCountMode.reset();
    p.promptTemplateId.reset();
    p.diagnostics = DiagnosticsPayload{};
    std::string text = CoreJSON::encode(p.toJson());
    EXPECT_EQ(text.find("null"), std::string::npos) << text;
    for (const char* key : {"meeting_name", "participants", "attachment_word", "speaker_count",
                            "speaker_count_mode", "prompt_template_id", "lastSequence", "isPaused"}) {
        EXPECT_EQ(text.find(std::string("\"") + key + "\""), std::string::npos) << key;
    }
    EXPECT_EQ(FinalizePayload::fromJson(Json::parse(text)), p);
}

TEST(WireRecords, DiagnosticsPayloadUsesCamelCaseKeys) {
    Json json = fullDiagnostics().toJson();
    EXPECT_EQ(keysOf(json), (std::set<std::string>{"lastSequence", "receivedCount", "uploadedCount",
                                                   "failedChunks", "recordingId", "sessionStart", "platform",
                                                   "logs", "summary", "isPaused", "totalPausedMs",
                                                   "fatalErrorCode", "fatalErrorMessage", "recoveryMarker"}));
    EXPECT_EQ(keysOf(json["summary"]),
              (std::set<std::string>{"chunksReceived", "chunksUploaded", "chunksFailed", "errorCount",
                                     "warnCount", "durationMs"}));
    EXPECT_EQ(keysOf(json["logs"][0]), (std::set<std::string>{"t", "level", "msg"}));
    EXPECT_EQ(DiagnosticsPayload::fromJson(Json::parse(CoreJSON::encode(json))), fullDiagnostics());

    Json lacking = json;
    lacking.erase("summary");
    EXPECT_THROW(DiagnosticsPayload::fromJson(lacking), DecodingError);
    Json fractional = json;
    fractional["lastSequence"] = 4.5;
    EXPECT_THROW(DiagnosticsPayload::fromJson(fractional), DecodingError);
}

TEST(WireRecords, BodiesCarryTheirFixedFlags) {
    DiagnosticSyncBody sync{"rec-1", "u-1", true, fullDiagnostics()};
    Json json = sync.toJson();
    EXPECT_EQ(keysOf(json),
              (std::set<std::string>{"recording_id", "user_id", "diagnostic_sync", "diagnostics"}));
    EXPECT_EQ(json["diagnostic_sync"], true);
    EXPECT_EQ(DiagnosticSyncBody::fromJson(json), sync);
    EXPECT_EQ(CoreJSON::encode(EarlyMappingBody{"m-1"}.toJson()), R"({"meeting_id":"m-1","on_demand":true})");
    EXPECT_EQ(CoreJSON::encode(ListChunksBody{"rec-1"}.toJson()), R"({"recording_id":"rec-1"})");
    EXPECT_EQ(EarlyMappingResponse::fromJson(Json::parse("{}")), EarlyMappingResponse{});
    EXPECT_THROW(EarlyMappingResponse::fromJson(Json::parse(R"({"status":1})")), DecodingError);
}

TEST(WireRecords, ShouldPollOnDispatchOrAListedReason) {
    EXPECT_TRUE((EarlyMappingDispatch{"dispatched", std::nullopt}.shouldPoll()));
    EXPECT_TRUE((EarlyMappingDispatch{std::nullopt, "already_done"}.shouldPoll()));
    EXPECT_TRUE((EarlyMappingDispatch{"skipped", "already_pending"}.shouldPoll()));
    EXPECT_TRUE((EarlyMappingDispatch{"skipped", "participants_present"}.shouldPoll()));
    EXPECT_FALSE((EarlyMappingDispatch{"failed", std::nullopt}.shouldPoll()));
    EXPECT_FALSE((EarlyMappingDispatch{"failed", "no_audio"}.shouldPoll()));
    EXPECT_FALSE(EarlyMappingDispatch{}.shouldPoll());
}

TEST(BackendErrors, UploadBackoffDoublesUpToTenSeconds) {
    const std::vector<std::pair<int, double>> expected{{-3, 0.5}, {0, 0.5}, {1, 0.5}, {2, 1},  {3, 2},
                                                       {4, 4},    {5, 8},   {6, 10},  {7, 10}, {100, 10}};
    for (auto [attempt, seconds] : expected) {
        EXPECT_DOUBLE_EQ(Backoff::uploadDelay(attempt), seconds) << attempt;
    }
    EXPECT_DOUBLE_EQ(Backoff::uploadDelay(std::numeric_limits<int>::max()), 10);
    EXPECT_DOUBLE_EQ(Backoff::uploadDelay(std::numeric_limits<int>::min()), 0.5);
}

} // namespace
} // namespace kavelo
