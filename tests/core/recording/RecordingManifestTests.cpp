#include "core/recording/InMemoryRecoveryStore.h"
#include "core/recording/RecordingManifest.h"

#include <gtest/gtest.h>

using namespace kavelo;

namespace {

RecordingManifest fullManifest() {
    RecordingManifest m;
    m.version = 1;
    m.recordingId = "rec-42";
    m.recordingSecret = "s3cret";
    m.stage = RecordingManifest::Stage::stopped;
    m.startedAt = CoreJSON::parseDate("2026-03-01T10:15:30Z");
    m.isPaused = true;
    m.pausedAt = CoreJSON::parseDate("2026-03-01T10:20:00Z");
    m.totalPausedMs = 2500.5;
    m.meetingName = "Weekstart";
    m.lastSequence = 17;
    m.elapsedSeconds = 312;
    m.userId = "user-7";
    return m;
}

} // namespace

TEST(RecordingManifestTest, WritesExactlyItsKeysAndReadsThemBack) {
    auto m = fullManifest();
    Json json = m.toJson();
    EXPECT_EQ(json, Json::parse(R"({
        "version": 1, "recordingId": "rec-42", "recordingSecret": "s3cret", "stage": "stopped",
        "startedAt": "2026-03-01T10:15:30Z", "isPaused": true, "pausedAt": "2026-03-01T10:20:00Z",
        "totalPausedMs": 2500.5, "meetingName": "Weekstart", "lastSequence": 17, "elapsedSeconds": 312,
        "userId": "user-7"})"));
    EXPECT_EQ(RecordingManifest::fromJson(CoreJSON::decode(CoreJSON::encode(json))), m);

    RecordingManifest bare;
    bare.recordingId = "rec-1";
    bare.startedAt = m.startedAt;
    Json bareJson = bare.toJson();
    EXPECT_EQ(bareJson.size(), 6u) << "absent optionals are left out, not written as null";
    EXPECT_EQ(RecordingManifest::fromJson(bareJson), bare);
}

TEST(RecordingManifestTest, ReadsLenientlyWhereAllowedAndRejectsTheRest) {
    Json json = fullManifest().toJson();
    json["version"] = 7;
    json["startedAt"] = "2026-03-01T10:15:30.250Z";
    json["meetingName"] = nullptr;
    auto read = RecordingManifest::fromJson(json);
    EXPECT_EQ(read.version, 7);
    EXPECT_FALSE(read.meetingName.has_value());
    EXPECT_EQ(CoreJSON::formatDateFractional(read.startedAt), "2026-03-01T10:15:30.250Z");

    auto broken = [](const std::function<void(Json&)>& change) {
        Json j = fullManifest().toJson();
        change(j);
        return j;
    };
    for (const char* key : {"version", "recordingId", "stage", "startedAt", "isPaused", "totalPausedMs"}) {
        EXPECT_THROW(RecordingManifest::fromJson(broken([&](Json& j) { j.erase(key); })), DecodingError)
            << key;
    }
    EXPECT_THROW(RecordingManifest::fromJson(broken([](Json& j) { j["stage"] = "paused"; })), DecodingError);
    EXPECT_THROW(RecordingManifest::fromJson(broken([](Json& j) { j["startedAt"] = "2026-03-01"; })),
                 DecodingError);
    EXPECT_THROW(RecordingManifest::fromJson(broken([](Json& j) { j["lastSequence"] = "5"; })),
                 DecodingError);
    EXPECT_THROW(RecordingManifest::fromJson(broken([](Json& j) { j["lastSequence"] = 1e12; })),
                 DecodingError);
    EXPECT_THROW(RecordingManifest::fromJson(Json::array()), DecodingError);

    // Recovery counts up to lastSequence and names a folder by the id: both are held to what a recording
    // can be, the same rule that the backend's answer met at the start.
    for (const Json& last : {Json(-1), Json(2147483647), Json(32769)}) {
        EXPECT_THROW(RecordingManifest::fromJson(broken([&](Json& j) { j["lastSequence"] = last; })),
                     DecodingError)
            << last;
    }
    EXPECT_EQ(RecordingManifest::fromJson(broken([](Json& j) { j["lastSequence"] = 0; })).lastSequence, 0);
    for (const char* id : {"a/b", "..", "a:b", ""}) {
        EXPECT_THROW(RecordingManifest::fromJson(broken([&](Json& j) { j["recordingId"] = id; })),
                     DecodingError)
            << id;
    }
    EXPECT_NO_THROW(
        RecordingManifest::fromJson(broken([](Json& j) { j["recordingId"] = std::string(64, 'r'); })));
    EXPECT_THROW(
        RecordingManifest::fromJson(broken([](Json& j) { j["recordingId"] = std::string(65, 'r'); })),
        DecodingError);
    EXPECT_THROW(RecordingManifest::fromJson(broken([](Json& j) { j["recordingSecret"] = "a\nb"; })),
                 DecodingError);
    EXPECT_THROW(RecordingManifest::fromJson(broken([](Json& j) { j["totalPausedMs"] = -5; })),
                 DecodingError);
}

TEST(RecordingManifestTest, KeepsTheReportRequestForItsOwnRecordingOnly) {
    auto m = fullManifest();
    FinalizePayload request;
    request.recordingId = m.recordingId;
    request.userId = "user-7";
    request.recipients = {{"a@b.nl", "An"}};
    request.outputLanguage = "nl";
    m.finalizeRequest = request;
    m.finalizeAccepted = true;
    EXPECT_EQ(RecordingManifest::fromJson(CoreJSON::decode(CoreJSON::encode(m.toJson()))), m);

    Json other = m.toJson();
    other["finalizeRequest"]["recording_id"] = "rec-other";
    EXPECT_THROW(RecordingManifest::fromJson(other), DecodingError);
    Json flag = m.toJson();
    flag["finalizeAccepted"] = "yes";
    EXPECT_THROW(RecordingManifest::fromJson(flag), DecodingError);
}

TEST(RecordingManifestTest, InMemoryStoreKeepsOneManifest) {
    InMemoryRecoveryStore store;
    EXPECT_FALSE(store.load().has_value());
    auto m = fullManifest();
    store.save(m);
    m.recordingId = "rec-43";
    store.save(m);
    EXPECT_EQ(store.load(), m);
    store.clear();
    EXPECT_FALSE(store.load().has_value());
}
