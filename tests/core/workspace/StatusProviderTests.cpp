#include "helpers/FakeHTTPClient.h"

#include "core/backend/APIError.h"
#include "core/mock/MockRecordingStatusProvider.h"
#include "core/support/ManualClock.h"
#include "core/workspace/DashboardActivityCenter.h"
#include "core/workspace/LiveRecordingStatusProvider.h"
#include "core/workspace/RecordingStatusParser.h"

#include <gtest/gtest.h>

using namespace kavelo;

namespace {

class SignedIn final : public AccessTokenProvider {
  public:
    std::optional<std::string> currentAccessToken() override { return "token"; }
};

class LiveRecordingStatusProviderTest : public ::testing::Test {
  protected:
    static AppConfig config() {
        AppConfig c;
        c.supabaseUrl = "https://proj.example.test";
        c.anonKey = "anon";
        return c;
    }
    std::shared_ptr<FakeHTTPClient> http = std::make_shared<FakeHTTPClient>();
    LiveRecordingStatusProvider provider{
        std::make_shared<SupabaseRestClient>(config(), http, std::make_shared<SignedIn>())};
};

} // namespace

TEST_F(LiveRecordingStatusProviderTest, AsksTheMeetingsTableAndTheStatusFunctionWithBoundedAnswers) {
    http->respondOnce("GET", "/rest/v1/meetings", 200, bytesFromString(R"([{"id":"meet-1"}])"));
    http->respondOnce("POST", "/rest/v1/rpc/get_recording_status", 200,
                      bytesFromString(R"({"data":[{"phase":"emailed","recipient_count":2}]})"));
    EXPECT_EQ(provider.resolveMeetingId("rec 1"), "meet-1");
    auto status = provider.fetchStatus("meet-1");
    ASSERT_TRUE(status);
    EXPECT_EQ(status->phase, RecordingStatusPhase::delivered);
    EXPECT_EQ(status->recipientCount, 2);

    auto requests = http->requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].url,
              "https://proj.example.test/rest/v1/meetings?select=id&recording_id=eq.rec+1&limit=1");
    EXPECT_EQ(requests[0].maxResponseBytes, RecordingStatusParser::maxAnswerBytes);
    EXPECT_EQ(requests[1].method, "POST");
    ASSERT_TRUE(requests[1].body);
    EXPECT_EQ(CoreJSON::decode(*requests[1].body), (Json{{"p_meeting_id", "meet-1"}}));
    EXPECT_EQ(requests[1].maxResponseBytes, RecordingStatusParser::maxAnswerBytes);
}

TEST_F(LiveRecordingStatusProviderTest, OddAnswersGiveNothingAndRefusalsThrow) {
    for (const char* body : {"[]", "{}", "not json", R"([{"id":5}])", R"([{"id":""}])", R"(["meet"])"}) {
        http->respondOnce("GET", "/rest/v1/meetings", 200, bytesFromString(body));
        EXPECT_EQ(provider.resolveMeetingId("r"), std::nullopt) << body;
    }
    http->respondOnce("GET", "/rest/v1/meetings", 200,
                      bytesFromString(R"([{"id":")" + std::string(300, 'x') + R"("}])"));
    EXPECT_EQ(provider.resolveMeetingId("r"), std::nullopt);
    http->respondOnce("POST", "/rpc/get_recording_status", 200, bytesFromString(R"({"result":"pending"})"));
    EXPECT_EQ(provider.fetchStatus("m"), std::nullopt);
    http->respondOnce("POST", "/rpc/get_recording_status", 500, bytesFromString("boom"));
    EXPECT_THROW(provider.fetchStatus("m"), APIError);
}

TEST(MockRecordingStatusProviderTest, AFinalizedRecordingTranscribesGeneratesAndIsDeliveredOnTheClock) {
    auto clock = std::make_shared<ManualClock>(TimePoint{std::chrono::seconds(1'772'360'000)});
    auto backend = std::make_shared<MockBackend>(clock);
    MockRecordingStatusProvider provider(backend, 8, 10);
    auto created = backend->createRecording();

    EXPECT_EQ(provider.resolveMeetingId(created.recordingId), created.meetingId);
    EXPECT_EQ(provider.resolveMeetingId("rec-unknown"), std::nullopt);
    EXPECT_EQ(provider.fetchStatus("meeting-unknown"), std::nullopt);
    EXPECT_EQ(provider.fetchStatus(created.meetingId)->phase, RecordingStatusPhase::recording);

    FinalizePayload payload;
    payload.recordingId = created.recordingId;
    payload.recipients = {FinalizeRecipient{}, FinalizeRecipient{}, FinalizeRecipient{}};
    backend->recordFinalize(payload);
    const TimePoint finalizedAt = clock->now();

    // The dashboard's own loop, as the application drives it, sees each phase in turn.
    DashboardActivityCenter center(::testing::TempDir() + "/kavelo-mock-activity-" + created.meetingId,
                                   [clock] { return clock->now(); });
    center.queue("u1", created.recordingId, std::nullopt, "Demo");
    std::vector<DashboardActivityPhase> seen;
    for (double step : {0.0, 7.9, 0.1, 9.9, 0.1}) {
        clock->advance(step);
        seen.push_back(center.refresh("u1", provider).at(0).phase);
    }
    EXPECT_EQ(seen, (std::vector<DashboardActivityPhase>{
                        DashboardActivityPhase::transcribing, DashboardActivityPhase::transcribing,
                        DashboardActivityPhase::generating, DashboardActivityPhase::generating,
                        DashboardActivityPhase::delivered}));
    auto item = center.items("u1").at(0);
    EXPECT_EQ(item.deliveredAt, finalizedAt + std::chrono::seconds(18));
    EXPECT_EQ(item.recipientCount, 3);
    EXPECT_EQ(item.meetingId, created.meetingId);
    std::filesystem::remove_all(center.directory());
}
