#include "app/shell/AppEnvironment.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace kavelo;

// Both worlds carry the activity list in their own data folder; the mock world's status provider follows
// the mock backend, so a recording finalized there is seen as being worked on.
TEST(AppEnvironmentActivityTest, EachWorldKeepsActivityInItsDataFolderAndTheMockWorldReportsProgress) {
    char pattern[] = "/tmp/kavelo-env-activity-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::filesystem::path home = pattern;
    AppEnvironment::Options options;
    options.env = [home](const std::string& name) -> std::optional<std::string> {
        if (name == "XDG_DATA_HOME") {
            return (home / "data").string();
        }
        if (name == "KAVELO_RECORDER") {
            return "mock";
        }
        return std::nullopt;
    };
    options.info =
        InfoDictionary(Json{{"SUPABASE_URL", "https://proj.example.test"}, {"SUPABASE_ANON_KEY", "k"}});
    options.sessionStorage = AppEnvironment::SessionStorage::memory;
    options.logSink = [](LogLevel, const std::string&, const std::string&) {};
    {
        AppEnvironment live(AppEnvironment::Mode::live, options);
        ASSERT_TRUE(live.dashboardActivity && live.recordingStatusProvider);
        EXPECT_EQ(live.dashboardActivity->directory(), home / "data" / "Kavely");
    }
    AppEnvironment env(AppEnvironment::Mode::mock, options);
    ASSERT_TRUE(env.dashboardActivity && env.recordingStatusProvider);
    EXPECT_EQ(env.dashboardActivity->directory(), home / "data" / "Kavely" / "Mock");

    const auto created = env.recordingAPI->initRecording(
        {"user-1", "anna@example.test", "Anna", "Weekstart", "linux", "1.0.0", "nl", std::nullopt, "system"});
    FinalizePayload payload;
    payload.recordingId = created.recordingId;
    env.recordingAPI->finalizeRecording(payload);
    env.dashboardActivity->queue("user-1", created.recordingId, std::nullopt, "Weekstart");
    const auto items = env.dashboardActivity->refresh("user-1", *env.recordingStatusProvider);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].phase, DashboardActivityPhase::transcribing);
    EXPECT_TRUE(
        std::filesystem::exists(home / "data" / "Kavely" / "Mock" / "dashboard-activity-user-1.json"));
    std::filesystem::remove_all(home);
}
