#include "helpers/DevServerProcess.h"

#include "core/accounts/LiveAuthService.h"
#include "core/backend/CurlHTTPClient.h"
#include "core/backend/SupabaseFunctionClient.h"
#include "core/support/InMemoryKeyValueStore.h"
#include "core/support/SystemClock.h"
#include "core/workspace/LiveTipsBackend.h"
#include "core/workspace/StaticJSONUpdateBackend.h"
#include "core/workspace/TipsService.h"
#include "core/workspace/UpdateService.h"

#include <gtest/gtest.h>

using namespace kavelo;

namespace {

class FixedToken final : public AccessTokenProvider {
  public:
    explicit FixedToken(std::optional<std::string> token) : token_(std::move(token)) {}
    std::optional<std::string> currentAccessToken() override { return token_; }

  private:
    const std::optional<std::string> token_;
};

// The update file and the tips over real HTTP: the readers against what the stand-in writes.
TEST(WorkspaceAgainstStandInTest, UpdatePolicyAndTipsTravelTheWholeWireAndAFailureKeepsWhatWasKnown) {
    DevServerProcess server(
        {"--user", "anna@example.test:geheim123", "--latest-version", "2.4.0", "--minimum-version", "2.0.0"});
    auto clock = std::make_shared<SystemClock>();
    auto http = std::make_shared<CurlHTTPClient>();
    auto store = std::make_shared<InMemoryKeyValueStore>();
    AppConfig config;
    config.supabaseUrl = server.baseUrl();
    config.anonKey = server.anonKey();
    auto logger = std::make_shared<CoreLogger>(clock, 50);

    auto policyFile =
        std::make_shared<StaticJSONUpdateBackend>(server.baseUrl() + "/update-policy.json", http);
    UpdateService old(policyFile, store, "1.9.3", clock);
    UpdateService current(policyFile, store, "2.4", clock);
    EXPECT_TRUE(old.isUpdateRequired());
    EXPECT_EQ(old.cachedStatus().downloadURL(), server.baseUrl() + "/download/kavely");
    EXPECT_EQ(current.checkForUpdates(), UpdateStatus::upToDate());
    const auto notes = current.unseenReleaseNotes();
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(notes[0].version, "2.4.0");

    auto auth = std::make_shared<LiveAuthService>(
        config, http, std::make_shared<SupabaseFunctionClient>(config, http, nullptr, logger), clock);
    const auto session = auth->signIn("anna@example.test", "geheim123");
    auto functions = std::make_shared<SupabaseFunctionClient>(
        config, http, std::make_shared<FixedToken>(session.accessToken), logger);
    std::vector<std::string> events;
    TipsService tips(std::make_shared<LiveTipsBackend>(functions), store);
    tips.setOnEvent([&events](const std::string& text) { events.push_back(text); });
    const auto answer = tips.loadTips();
    ASSERT_TRUE(answer.has_value()) << (events.empty() ? "" : events.back());
    EXPECT_EQ(answer->meetingCount, 0);
    ASSERT_EQ(answer->tips.size(), 2u);
    EXPECT_EQ(tips.visibleTips(answer->tips).front().id, "dev-tip-1");
    EXPECT_EQ(events.back(), "get-tips ok: segment=new tips=2 meetingCount=0");

    // Without a user the function refuses; the cache answers, and the update verdict stays.
    TipsService anonymous(std::make_shared<LiveTipsBackend>(std::make_shared<SupabaseFunctionClient>(
                              config, http, std::make_shared<FixedToken>(std::nullopt), logger)),
                          store);
    EXPECT_EQ(anonymous.loadTips(), answer);
    server.stop();
    EXPECT_TRUE(old.isUpdateRequired()) << "an unreachable host must not lift a required update";
}

} // namespace
