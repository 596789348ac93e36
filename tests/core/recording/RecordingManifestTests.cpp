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
