#include "core/mock/MockRecordingAPI.h"
#include "core/support/ManualClock.h"
#include "core/support/SteppingClock.h"

#include <gtest/gtest.h>

#include <regex>

namespace kavelo {
namespace {

const TimePoint kStart = TimePoint{} + std::chrono::hours(24 * 20000);

TEST(MockRecordingAPI, InitOpensARecordingWithItsMeetingOrThrowsTheKnob) {
    auto backend = std::make_shared<MockBackend>(std::make_shared<ManualClock>(kStart));
    MockRecordingAPI api(backend);

    auto first = api.initRecording({});
    auto second = api.initRecording({});
    EXPECT_TRUE(std::regex_match(first.recordingId, std::regex("rec_mock_1_[0-9a-f]{8}")))
        << first.recordingId;
    EXPECT_TRUE(std::regex_match(second.recordingId, std::regex("rec_mock_2_[0-9a-f]{8}")));
    ASSERT_TRUE(first.recordingSecret);
    EXPECT_TRUE(std::regex_match(*first.recordingSecret, std::regex("secret_[0-9a-f]{8}-[0-9a-f]{3}")));
    EXPECT_FALSE(first.deduplicated);

    auto meeting = backend->meeting(first.recordingId);
    ASSERT_TRUE(meeting);
    EXPECT_TRUE(
        std::regex_match(meeting->meetingId,
                         std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")));
    EXPECT_NE(meeting->meetingId, backend->meeting(second.recordingId)->meetingId);
    EXPECT_EQ(api.resolveMeetingId(first.recordingId), meeting->meetingId);
    EXPECT_FALSE(api.resolveMeetingId("rec_unknown"));

    api.setFailInit(InitRecordingError::backend(503, "busy", "Even geduld"));
    try {
        api.initRecording({});
        ADD_FAILURE() << "no error thrown";
    } catch (const InitRecordingError& e) {
        EXPECT_EQ(e, InitRecordingError::backend(503, "busy", "Even geduld"));
    }
    EXPECT_EQ(backend->recordingCounter(), 2);
}

TEST(MockRecordingAPI, ChunkListShowsStoredSequencesAndTheGapsBelowTheHighest) {
    auto backend = std::make_shared<MockBackend>(std::make_shared<ManualClock>(kStart));
    MockRecordingAPI api(backend);
    std::string id = api.initRecording({}).recordingId;

    EXPECT_EQ(api.listRecordingChunks(id), (ChunkReconciliation{{}, {}, true}));
    for (int sequence : {4, 1, 2, 4}) {
        backend->recordUpload(id, sequence);
    }
    EXPECT_EQ(api.listRecordingChunks(id), (ChunkReconciliation{{1, 2, 4}, {3}, true}));
    backend->recordUpload(id, 7);
    EXPECT_EQ(api.listRecordingChunks(id).missing, (std::vector<int>{3, 5, 6}));

    // A folder that names no recording is kept under its own name and touches no other recording.
    backend->recordUpload("stray_folder", 1);
    EXPECT_EQ(backend->uploadedChunks("stray_folder"), (std::set<int>{1}));
    EXPECT_EQ(api.listRecordingChunks("rec_unknown"), (ChunkReconciliation{{}, {}, true}));
}

TEST(MockRecordingAPI, FinalizeAndDiagnosticsAreRecordedInArrivalOrder) {
    auto clock = std::make_shared<ManualClock>(kStart);
    auto backend = std::make_shared<MockBackend>(clock);
    MockRecordingAPI api(backend);

    FinalizePayload first;
    first.recordingId = "rec-a";
    first.recipients = {{"a@b.nl", std::nullopt}};
    FinalizePayload second;
    second.recordingId = "rec-b";
    api.finalizeRecording(first);
    clock->advance(5);
    api.finalizeRecording(second);
    EXPECT_EQ(backend->finalized(), (std::vector<FinalizePayload>{first, second}));
    EXPECT_EQ(backend->finalizedAt("rec-a"), kStart);
    EXPECT_EQ(backend->finalizedAt("rec-b"), addSeconds(kStart, 5));
    EXPECT_FALSE(backend->finalizedAt("rec-c"));

    DiagnosticsPayload diagnostics;
    diagnostics.recoveryMarker = "relaunch_active";
    api.diagnosticSync("rec-a", "u-1", diagnostics);
    EXPECT_EQ(backend->diagnosticSyncs(), (std::vector<MockBackend::DiagnosticSync>{{"rec-a", diagnostics}}));
}

TEST(MockRecordingAPI, MappingResultArrivesAfterTheDelayOnTheClock) {
    auto clock = std::make_shared<SteppingClock>(kStart);
    auto backend = std::make_shared<MockBackend>(clock);
    backend->setMappingNames({"Eva", "Ties"});
    backend->setMappingDelay(2.0);
    MockRecordingAPI api(backend);
    std::string meetingId = *api.resolveMeetingId(api.initRecording({}).recordingId);
    std::string otherMeeting = *api.resolveMeetingId(api.initRecording({}).recordingId);

    EXPECT_EQ(api.triggerEarlySpeakerMapping(meetingId), (EarlyMappingDispatch{"dispatched", std::nullopt}));
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(1.5);
    EXPECT_EQ(api.fetchMeetingMapping(meetingId), MeetingMappingRow{});
    clock->advance(0.5);
    backend->settle();
    EXPECT_EQ(api.fetchMeetingMapping(meetingId), (MeetingMappingRow{{"Eva", "Ties"}, "done"}));
    EXPECT_EQ(api.fetchMeetingMapping(otherMeeting), MeetingMappingRow{});
    EXPECT_EQ(api.fetchMeetingMapping("unknown"), MeetingMappingRow{});
}

TEST(MockRecordingAPI, BackendEndsCleanlyWithAMappingStillPending) {
    auto clock = std::make_shared<SteppingClock>(kStart);
    auto backend = std::make_shared<MockBackend>(clock);
    auto api = std::make_unique<MockRecordingAPI>(backend);
    api->triggerEarlySpeakerMapping("m-1");
    ASSERT_TRUE(clock->waitForSleepers(1));
    std::weak_ptr<MockBackend> weak = backend;
    // The API holds the backend too; once both go, the pending task is cancelled and joined.
    backend.reset();
    api.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(clock->sleeperCount(), 0u);
}

} // namespace
} // namespace kavelo
