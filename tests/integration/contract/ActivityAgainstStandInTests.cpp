#include "helpers/DevServerProcess.h"

#include "core/accounts/LiveAuthService.h"
#include "core/backend/CurlHTTPClient.h"
#include "core/backend/LiveRecordingAPI.h"
#include "core/backend/SupabaseFunctionClient.h"
#include "core/backend/SupabaseRestClient.h"
#include "core/support/SystemClock.h"
#include "core/workspace/DashboardActivityCenter.h"
#include "core/workspace/LiveRecordingStatusProvider.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <unistd.h>

using namespace kavelo;
using namespace std::chrono_literals;

namespace {

class FixedSession final : public AccessTokenProvider {
  public:
    explicit FixedSession(std::string token) : token_(std::move(token)) {}
    std::optional<std::string> currentAccessToken() override { return token_; }

  private:
    const std::string token_;
};

std::filesystem::path temporaryFolder() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "kavelo-activity-it-XXXXXX").string();
    if (::mkdtemp(tmpl.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    return tmpl;
}

} // namespace

// The dashboard's poll over real HTTP: the status provider's select and rpc against the stand-in's meetings
// table and get_recording_status, the activity file written between polls, until the report is sent.
TEST(ActivityAgainstStandInTest, ASubmittedRecordingIsFollowedUntilDelivered) {
    DevServerProcess server{{"--meeting-row-delay", "0", "--status-step-seconds", "0.4", "--user",
                             "anna@example.test:geheim123", "--user", "bram@example.test:geheim456"}};
    AppConfig config;
    config.supabaseUrl = server.baseUrl();
    config.anonKey = server.anonKey();
    auto clock = std::make_shared<SystemClock>();
    auto logger = std::make_shared<CoreLogger>(clock, 200);
    auto http = std::make_shared<CurlHTTPClient>();
    LiveAuthService auth(config, http,
                         std::make_shared<SupabaseFunctionClient>(config, http, nullptr, logger), clock);
    const auto session = auth.signIn("anna@example.test", "geheim123");
    auto tokens = std::make_shared<FixedSession>(session.accessToken);
    auto rest = std::make_shared<SupabaseRestClient>(config, http, tokens);
    LiveRecordingAPI api(std::make_shared<SupabaseFunctionClient>(config, http, tokens, logger), rest);
    LiveRecordingStatusProvider provider(rest);

    const auto created = api.initRecording({session.user.id, session.user.email, "Anna", "Weekstart", "linux",
                                            "1.0.0", "nl", std::nullopt, "system"});
    const auto folder = temporaryFolder();
    DashboardActivityCenter center(folder / "data", [clock] { return clock->now(); });
    center.queue(session.user.id, created.recordingId, std::nullopt, "Weekstart");

    // Not yet finalized: the backend says "recording", which moves nothing, but the meeting is found.
    auto items = center.refresh(session.user.id, provider);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].phase, DashboardActivityPhase::submitted);
    ASSERT_TRUE(items[0].meetingId.has_value());
    const std::string meetingId = *items[0].meetingId;

    // Another user's meeting reads as nothing at all.
    const auto bram = auth.signIn("bram@example.test", "geheim456");
    LiveRecordingStatusProvider bramsView(
        std::make_shared<SupabaseRestClient>(config, http, std::make_shared<FixedSession>(bram.accessToken)));
    EXPECT_EQ(bramsView.fetchStatus(meetingId), std::nullopt);
    EXPECT_EQ(bramsView.resolveMeetingId(created.recordingId), std::nullopt);

    FinalizePayload payload;
    payload.recordingId = created.recordingId;
    payload.userId = session.user.id;
    payload.userEmail = session.user.email;
    payload.userName = "Anna";
    payload.recipients = {{"bram@example.test", "Bram"}, {"cor@example.test", std::nullopt}};
    payload.uploadMode = config.uploadMode;
    payload.outputLanguage = "nl";
    HTTPRequest upload; // the stand-in sends no report for a recording without audio
    upload.method = "POST";
    upload.url =
        server.baseUrl() + "/storage/v1/object/recordings/" + created.recordingId + "/chunks/00001.aac";
    upload.headers = {{"apikey", config.anonKey},
                      {"Authorization", "Bearer " + session.accessToken},
                      {"Content-Type", "audio/aac"},
                      {"x-upsert", "true"}};
    upload.body = bytesFromString("aac");
    ASSERT_EQ(http->send(upload).statusCode, 200);
    const auto finalizedAt = clock->now();
    api.finalizeRecording(payload);

    // Polls as the application does, only faster, and notes every phase the list passes through.
    std::vector<DashboardActivityPhase> seen;
    const auto deadline = std::chrono::steady_clock::now() + 15s;
    while (std::chrono::steady_clock::now() < deadline) {
        items = center.refresh(session.user.id, provider);
        ASSERT_EQ(items.size(), 1u);
        if (seen.empty() || seen.back() != items[0].phase) {
            seen.push_back(items[0].phase);
        }
        if (items[0].phase == DashboardActivityPhase::delivered) {
            break;
        }
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_EQ(seen, (std::vector<DashboardActivityPhase>{DashboardActivityPhase::transcribing,
                                                         DashboardActivityPhase::generating,
                                                         DashboardActivityPhase::delivered}));
    ASSERT_EQ(items[0].phase, DashboardActivityPhase::delivered);
    EXPECT_EQ(items[0].recipientCount, 2);
    ASSERT_TRUE(items[0].deliveredAt.has_value());
    // The stand-in sends whole seconds: the date is its finalize time plus two steps, give or take one.
    EXPECT_NEAR(secondsBetween(finalizedAt, *items[0].deliveredAt), 0.8, 1.0);

    // What the next start of the program reads.
    DashboardActivityCenter restarted(folder / "data");
    EXPECT_EQ(restarted.items(session.user.id), items);
    std::filesystem::remove_all(folder);
}
