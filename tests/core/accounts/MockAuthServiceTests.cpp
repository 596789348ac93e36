#include "core/accounts/AuthError.h"
#include "core/mock/MockAuthService.h"
#include "core/support/ManualClock.h"

#include <gtest/gtest.h>

using namespace kavelo;

namespace {

struct MockAuthServiceTest : ::testing::Test {
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(TimePoint{std::chrono::seconds(1000)});
    MockAuthService service{clock, {{MockAuthService::demoEmail, MockAuthService::demoPassword}}};

    AuthError errorOf(const std::function<void()>& f) {
        try {
            f();
        } catch (const AuthError& e) {
            return e;
        }
        ADD_FAILURE() << "no AuthError thrown";
        return AuthError::cancelled();
    }
};

} // namespace

TEST_F(MockAuthServiceTest, PasswordAccountsNormaliseTheAddressAndKeepTheLiveErrors) {
    AuthSession session = service.signIn("  Demo@Kavely.NL ", MockAuthService::demoPassword);
    EXPECT_EQ(session.user.email, "demo@kavely.nl");
    EXPECT_EQ(session.expiresAt, 1000 + 3600);
    EXPECT_EQ(session.user.id.rfind("mock-user-", 0), 0u);
    EXPECT_EQ(errorOf([&] { service.signIn("demo@kavely.nl", "wrong"); }), AuthError::invalidCredentials());

    EXPECT_EQ(errorOf([&] { service.signUp("new@x.nl", "12345", "N"); }), AuthError::weakPassword());
    EXPECT_EQ(errorOf([&] { service.signUp("nieuw@x.nl", "ééééé", "N"); }), AuthError::weakPassword());
    SignUpOutcome outcome = service.signUp(" New@X.nl", "123456", "N");
    ASSERT_EQ(outcome.kind, SignUpOutcome::Kind::session);
    EXPECT_EQ(outcome.session->user.email, "new@x.nl");
    EXPECT_EQ(service.signIn("new@x.nl", "123456").user.email, "new@x.nl");
    EXPECT_EQ(errorOf([&] { service.signUp("NEW@x.nl", "1234567", "N"); }), AuthError::emailTaken());
}

TEST_F(MockAuthServiceTest, OAuthAnswersTheDemoAccountUnlessToldOtherwiseOnce) {
    PreparedOAuthFlow flow = service.prepareOAuth(OAuthProvider::microsoft, std::nullopt);
    EXPECT_NE(flow.authorizeURL.find("mock"), std::string::npos);
    EXPECT_TRUE(flow.authorizeURL.ends_with("/mock/microsoft"));
    EXPECT_EQ(flow.codeVerifier.size(), 43u);

    service.setNextOutcome(OAuthOutcome::error(OAuthErrorCode::emailNotVerified));
    EXPECT_EQ(service.exchangeOAuthCode("c", "v"), OAuthOutcome::error(OAuthErrorCode::emailNotVerified));
    OAuthOutcome next = service.exchangeOAuthCode("c", "v");
    ASSERT_NE(next.asSession(), nullptr);
    EXPECT_EQ(next.asSession()->user.email, MockAuthService::demoEmail);
    EXPECT_EQ(service.refresh("anything").user.email, MockAuthService::demoEmail);

    EXPECT_EQ(service.confirmAccountLink("expired"), AccountLinkConfirmResult::expired());
    EXPECT_EQ(service.confirmAccountLink("lt"), AccountLinkConfirmResult::success("microsoft"));

    service.updateUserMetadata({{"a", "1"}, {"b", "2"}}, "t");
    service.updateUserMetadata({{"b", "3"}}, "t");
    EXPECT_EQ(service.userMetadata(), (std::map<std::string, std::string>{{"a", "1"}, {"b", "3"}}));
}
