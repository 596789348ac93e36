#include "app/shell/DashboardPreferences.h"
#include "app/shell/OnboardingFlow.h"
#include "app/shell/SessionHealthCheck.h"
#include "core/accounts/AuthError.h"
#include "core/accounts/InMemorySessionStore.h"
#include "core/support/InMemoryKeyValueStore.h"
#include "core/support/ManualClock.h"

#include <gtest/gtest.h>

namespace kavelo {
namespace {

using Permissions = OnboardingFlow::AudioPermissions;
constexpr Permissions kAllGranted{PermissionState::granted, PermissionState::granted,
                                  PermissionState::granted};

TEST(OnboardingFlowTest, ANewProviderAccountAnswersTheQuestionnaireOnceAndAudioSetupComesFirst) {
    auto store = std::make_shared<InMemoryKeyValueStore>();
    OnboardingFlow flow(store);
    const TimePoint now = addSeconds(TimePoint{}, 1'000'000);
    AuthUser fresh{.id = "u1",
                   .email = "anna@example.test",
                   .workProfile = std::nullopt,
                   .createdAt = addSeconds(now, -300)};
    ASSERT_TRUE(flow.providerSignIn(fresh, now));
    const Permissions micOnly{PermissionState::granted, PermissionState::notDetermined,
                              PermissionState::granted};
    EXPECT_EQ(flow.stepAfterSignIn("u1", micOnly), "permissions");
    EXPECT_EQ(flow.completeAudioSetup("u1"), "referral");
    EXPECT_EQ(flow.stepAfterSignIn("u1", micOnly), "referral") << "audio setup is done once per computer";
    EXPECT_EQ(flow.finishPostAuth("u1", kAllGranted), "welcome");
    EXPECT_EQ(store->string("kavelo_output_language"), "nl");
    EXPECT_EQ(flow.stepAfterSignIn("u1", kAllGranted), std::nullopt);
    // The same user later, or an old account, or one whose work the provider knows: no questionnaire.
    EXPECT_FALSE(flow.providerSignIn(fresh, now));
    AuthUser old{.id = "u2",
                 .email = "bram@example.test",
                 .workProfile = std::nullopt,
                 .createdAt = addSeconds(now, -301)};
    EXPECT_FALSE(flow.providerSignIn(old, now));
    EXPECT_EQ(store->boolean(OnboardingFlow::userKey("kavelo_onboarding_seen", "u2")), true);
    AuthUser known{.id = "u3", .email = "cor@example.test", .workProfile = "legal", .createdAt = now};
    EXPECT_FALSE(flow.providerSignIn(known, now));
    // A denied capture permission asks for setup only while it has not been done.
    store->setBool(false, "kavelo_audio_setup_done");
    EXPECT_EQ(flow.stepAfterSignIn(
                  "u3", {PermissionState::granted, PermissionState::granted, PermissionState::denied}),
              "permissions");
}

TEST(OnboardingFlowTest, AnotherAccountIsNoticedOnceAndAPasswordSignInSkipsTheQuestionnaire) {
    auto store = std::make_shared<InMemoryKeyValueStore>();
    OnboardingFlow flow(store);
    EXPECT_TRUE(flow.rememberUser("u1"));
    EXPECT_FALSE(flow.rememberUser("u1"));
    EXPECT_TRUE(flow.rememberUser("u2"));
    store->setBool(true, OnboardingFlow::userKey("kavelo_questionnaire_pending", "u2"));
    flow.passwordSignIn("u2");
    EXPECT_EQ(flow.stepAfterSignIn("u2", kAllGranted), std::nullopt);
}

TEST(DashboardPreferencesTest, CoachMarksFollowWhetherTheUserRecordedIncludingTheOldAccountFreeFlag) {
    auto store = std::make_shared<InMemoryKeyValueStore>();
    DashboardPreferences prefs(store);
    EXPECT_EQ(prefs.initializeEducation("u1"), (DashboardPreferences::Education{true, true, true}));
    prefs.completeEducation("u1", "report-settings");
    prefs.markRecorded("u1");
    // A recording completes the first mark; marks already set keep their state.
    EXPECT_EQ(prefs.initializeEducation("u1"), (DashboardPreferences::Education{false, true, false}));
    EXPECT_FALSE(prefs.hasRecordedBefore(std::string("u2")));
    // Someone who recorded before marks were per user, and finished the first mark, counts as recorded.
    store->setBool(true, "kavelo_has_recorded");
    store->setString("completed", "kavely:coachmark:first-recording:v1:u2");
    EXPECT_EQ(prefs.initializeEducation("u2"), (DashboardPreferences::Education{false, false, false}));
    EXPECT_TRUE(prefs.hasRecordedBefore(std::string("u2")));
}

TEST(DashboardPreferencesTest, TheTipCursorMovesOnAndReadsAnythingOddAsTheStart) {
    auto store = std::make_shared<InMemoryKeyValueStore>();
    DashboardPreferences prefs(store);
    EXPECT_EQ(prefs.nextTipCursor(), 0);
    EXPECT_EQ(prefs.nextTipCursor(), 1);
    for (const char* odd : {"-4", "zeven", "99999999999999", ""}) {
        store->setString(odd, "kavelo_tip_cursor");
        EXPECT_EQ(prefs.nextTipCursor(), 0) << odd;
        EXPECT_EQ(prefs.nextTipCursor(), 1) << odd;
    }
}

TEST(SessionHealthCheckTest, OnlyAnExpiringTokenIsRefreshedAndOnlyARefusalEndsTheSession) {
    auto clock = std::make_shared<ManualClock>(addSeconds(TimePoint{}, 1'000'000));
    auto sessions = std::make_shared<SessionManager>(std::make_shared<InMemorySessionStore>(), clock);
    auto logger = std::make_shared<CoreLogger>(clock, 100);
    SessionHealthCheck check(sessions, clock, logger);
    EXPECT_EQ(check.run(), SessionHealthCheck::Outcome::noSession);

    int refreshes = 0;
    std::function<AuthSession(const std::string&)> answer;
    sessions->setRefresher([&](const std::string& token) {
        ++refreshes;
        return answer(token);
    });
    AuthSession session;
    session.accessToken = "a1";
    session.refreshToken = "r1";
    session.user.id = "u1";
    session.expiresAt = secondsSince1970(clock->now()) + 31;
    sessions->install(session);
    EXPECT_EQ(check.run(), SessionHealthCheck::Outcome::stillValid);
    EXPECT_EQ(refreshes, 0);

    clock->advance(2);
    answer = [](const std::string&) -> AuthSession { throw AuthError::unknown("502"); };
    EXPECT_EQ(check.run(), SessionHealthCheck::Outcome::retryLater);
    EXPECT_TRUE(sessions->session().has_value());
    answer = [&](const std::string&) -> AuthSession { throw AuthError::refreshRejected(); };
    EXPECT_EQ(check.run(), SessionHealthCheck::Outcome::rejected);
    answer = [&](const std::string&) {
        AuthSession next = session;
        next.accessToken = "a2";
        next.expiresAt = secondsSince1970(clock->now()) + 3600;
        return next;
    };
    EXPECT_EQ(check.run(), SessionHealthCheck::Outcome::refreshed);
    EXPECT_EQ(sessions->session()->accessToken, "a2");
    EXPECT_EQ(refreshes, 3);
    EXPECT_EQ(logger->counts(), (CoreLogger::Counts{1, 1}));
}

} // namespace
} // namespace kavelo
