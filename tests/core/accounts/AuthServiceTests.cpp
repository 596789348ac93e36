#include "ScriptedHTTPClient.h"

#include "core/accounts/AuthError.h"
#include "core/accounts/LiveAuthService.h"
#include "core/accounts/OAuthPrepareCache.h"
#include "core/accounts/PKCE.h"
#include "core/support/ManualClock.h"

#include <gtest/gtest.h>

using namespace kavelo;
using kavelo::testing::FixedTokenProvider;
using kavelo::testing::ScriptedHTTPClient;

namespace {

const TimePoint kNow = dateFromSecondsSince1970(1'772'000'000);

template <class F> AuthError authErrorOf(F&& f) {
    try {
        f();
    } catch (const AuthError& e) {
        return e;
    }
    ADD_FAILURE() << "no AuthError thrown";
    return AuthError::cancelled();
}

struct LiveAuthServiceTest : ::testing::Test {
    std::shared_ptr<ScriptedHTTPClient> http = std::make_shared<ScriptedHTTPClient>();
    std::shared_ptr<FixedTokenProvider> tokens =
        std::make_shared<FixedTokenProvider>("stored-token", std::nullopt);
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(kNow);
    LiveAuthService service = makeService();

    LiveAuthService makeService() {
        AppConfig config;
        config.supabaseUrl = "https://proj.example.test";
        config.anonKey = "anon";
        config.oauthClientType = "ios";
        auto logger = std::make_shared<CoreLogger>(clock, 100);
        auto functions = std::make_shared<SupabaseFunctionClient>(config, http, tokens, logger);
        return LiveAuthService(config, http, functions, clock);
    }
    OAuthOutcome parse(const std::string& body) const { return service.parseOutcome(bytesFromString(body)); }
    Json lastBody() const { return CoreJSON::decode(*http->requests().back().body); }
};

} // namespace

TEST(PKCETest, VerifierIsUrlSafeAndChallengeFollowsTheRFC) {
    std::string verifier = PKCE::codeVerifier();
    EXPECT_EQ(verifier.size(), 43u);
    EXPECT_EQ(verifier.find_first_of("+/="), std::string::npos);
    EXPECT_NE(verifier, PKCE::codeVerifier());
    EXPECT_EQ(PKCE::codeChallenge("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
              "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
}

TEST(OAuthPrepareCacheTest, ConsumeHandsOutOnlyTheMatchingProviderOnce) {
    OAuthPrepareCache cache;
    cache.store({OAuthProvider::microsoft, "https://a", "v"});
    EXPECT_EQ(cache.consume(OAuthProvider::google), std::nullopt);
    EXPECT_TRUE(cache.hasValue());
    EXPECT_EQ(cache.consume(OAuthProvider::microsoft)->authorizeURL, "https://a");
    EXPECT_EQ(cache.consume(OAuthProvider::microsoft), std::nullopt);
    EXPECT_FALSE(cache.hasValue());
}

TEST_F(LiveAuthServiceTest, PrepareSendsTheChallengeOfTheReturnedVerifier) {
    http->answer(200, R"({"authorize_url":"https://accounts.example.test/auth?x=1"})");
    PreparedOAuthFlow flow = service.prepareOAuth(OAuthProvider::sso, "inv-1");
    EXPECT_EQ(flow.provider, OAuthProvider::sso);
    EXPECT_EQ(flow.authorizeURL, "https://accounts.example.test/auth?x=1");
    const HTTPRequest request = http->requests().back();
    EXPECT_EQ(request.url, "https://proj.example.test/functions/v1/oauth-prepare");
    EXPECT_EQ(request.headers.at("Authorization"), "Bearer anon");
    EXPECT_EQ(request.timeout, 20);
    EXPECT_EQ(lastBody(), (Json{{"provider", "sso"},
                                {"client_type", "ios"},
                                {"code_challenge", PKCE::codeChallenge(flow.codeVerifier)},
                                {"invite_token", "inv-1"}}));

    http->answer(200, R"({"authorize_url":""})");
    EXPECT_EQ(authErrorOf([&] { service.prepareOAuth(OAuthProvider::google, std::nullopt); }),
              AuthError::prepareFailed("invalid authorize_url"));
    EXPECT_FALSE(lastBody().contains("invite_token"));
    http->answer(200, R"({"url":"https://x"})");
    EXPECT_EQ(authErrorOf([&] { service.prepareOAuth(OAuthProvider::google, std::nullopt); }),
              AuthError::prepareFailed(
                  R"(decoding("oauth-prepare: No value associated with key \"authorize_url\"."))"));
    http->answer(503, R"({"message":"down"})");
    EXPECT_EQ(authErrorOf([&] { service.prepareOAuth(OAuthProvider::google, std::nullopt); }),
              AuthError::prepareFailed(R"(http(status: 503, errorCode: nil, message: Optional("down")))"));
}

TEST_F(LiveAuthServiceTest, ExchangeTurnsRefusalsIntoOutcomesAndTransportFailuresIntoErrors) {
    http->answer(400, R"({"error_code":"link_token_expired","message":"Verlopen"})");
    EXPECT_EQ(service.exchangeOAuthCode("c", "v"),
              OAuthOutcome::error(OAuthErrorCode::linkTokenExpired, "Verlopen"));
    EXPECT_EQ(lastBody(), (Json{{"code", "c"}, {"code_verifier", "v"}}));
    EXPECT_EQ(http->requests().back().timeout, 25);

    http->answer(500, "{}");
    EXPECT_EQ(service.exchangeOAuthCode("c", "v"), OAuthOutcome::error(OAuthErrorCode::unknown, "{}"));

    http->fail(TransportError(TransportError::Kind::timeout, "Timeout was reached"));
    EXPECT_EQ(authErrorOf([&] { service.exchangeOAuthCode("c", "v"); }),
              AuthError::exchangeFailed("timeout"));

    http->answer(200, R"({"outcome":"link_success"})");
    EXPECT_EQ(service.exchangeOAuthCode("c", "v"), OAuthOutcome::linkSuccess());
}

TEST_F(LiveAuthServiceTest, ParseOutcomeReadsSessionsLeniently) {
    OAuthOutcome plain = parse(R"({"outcome":"session","session":{"access_token":"a","refresh_token":"r",
        "user":{"id":"inner","email":"in@x.nl"}}})");
    ASSERT_NE(plain.asSession(), nullptr);
    EXPECT_DOUBLE_EQ(plain.asSession()->expiresAt, secondsSince1970(kNow) + 3600);
    EXPECT_EQ(plain.asSession()->user.id, "inner");

    OAuthOutcome full = parse(R"({"outcome":"session","session":{"access_token":"a","refresh_token":"r",
        "expires_in":60,"user":{"id":"inner"}},"user":{"id":"top","email":7,"created_at":"2026-03-01T10:15:30.5Z",
        "user_metadata":{"work_profile":"sales"}}})");
    ASSERT_NE(full.asSession(), nullptr);
    EXPECT_DOUBLE_EQ(full.asSession()->expiresAt, secondsSince1970(kNow) + 60);
    AuthUser expected{"top", "", "sales", CoreJSON::parseDate("2026-03-01T10:15:30.5Z")};
    EXPECT_EQ(full.asSession()->user, expected);

    EXPECT_EQ(parse(R"({"outcome":"session","session":{"access_token":"a","expires_at":5}})"),
              OAuthOutcome::error(OAuthErrorCode::sessionDataMissing));
    EXPECT_EQ(parse("<html>"),
              OAuthOutcome::error(OAuthErrorCode::sessionDataMissing, "Onleesbaar antwoord van de server."));
    EXPECT_EQ(parse("[1]"),
              OAuthOutcome::error(OAuthErrorCode::sessionDataMissing, "Onleesbaar antwoord van de server."));
}

TEST_F(LiveAuthServiceTest, ParseOutcomeReadsLinksErrorsAndRedirects) {
    AccountLinkRequirement link{"lt", "onbekend", std::nullopt, "", std::nullopt};
    EXPECT_EQ(parse(R"({"outcome":"account_link_required","link_token":"lt","expires_at":"gisteren"})"),
              OAuthOutcome::accountLinkRequired(link));
    AccountLinkRequirement full{"lt", "google", "microsoft", "a@b.nl",
                                CoreJSON::parseDate("2026-03-01T10:15:30Z")};
    EXPECT_EQ(parse(R"({"outcome":"account_link_required","link_token":"lt","existing_provider":"google",
        "new_provider":"microsoft","email":"a@b.nl","expires_at":"2026-03-01T10:15:30Z"})"),
              OAuthOutcome::accountLinkRequired(full));
    EXPECT_EQ(parse(R"({"outcome":"account_link_required"})"),
              OAuthOutcome::error(OAuthErrorCode::sessionDataMissing));

    EXPECT_EQ(
        parse(
            R"({"outcome":"error","error_code":"brand_new","message":"Nee","detail":{"provider":"google"}})"),
        OAuthOutcome::error(OAuthErrorCode::unknown, "Nee", "google"));
    EXPECT_EQ(parse(R"({"outcome":"error","error_code":"account_exists_other_provider"})"),
              OAuthOutcome::error(OAuthErrorCode::accountExistsOtherProvider));
    EXPECT_EQ(parse(R"({"outcome":"link_email_sent","message":"x"})"),
              OAuthOutcome::error(OAuthErrorCode::accountLinkLegacyFlow));
    EXPECT_EQ(parse(R"({"outcome":"account_linked"})"), OAuthOutcome::linkSuccess());

    EXPECT_EQ(parse(R"({"next_url":"https://sso.example.test/start","note":"x"})"),
              OAuthOutcome::externalRedirect("https://sso.example.test/start"));
    EXPECT_EQ(parse(R"({"next_url":"not a url"})"),
              OAuthOutcome::error(OAuthErrorCode::unknown, "Onbekende uitkomst: "));
    EXPECT_EQ(parse(R"({"outcome":"later"})"),
              OAuthOutcome::error(OAuthErrorCode::unknown, "Onbekende uitkomst: later"));
}

TEST_F(LiveAuthServiceTest, PasswordSignInAndRefreshReadTheirStatuses) {
    http->answer(200, R"({"access_token":"a","refresh_token":"r","expires_at":1772009999,
        "user":{"id":"u","email":"a@b.nl","created_at":"2026-01-02T03:04:05Z","user_metadata":{"full_name":"X"},
        "identities":[{"provider":"email"}]}})");
    AuthSession session = service.signIn("a@b.nl", "geheim");
    EXPECT_EQ(session.expiresAt, 1772009999);
    EXPECT_EQ(session.user,
              (AuthUser{"u", "a@b.nl", std::nullopt, CoreJSON::parseDate("2026-01-02T03:04:05Z")}));
    HTTPRequest request = http->requests().back();
    EXPECT_EQ(request.url, "https://proj.example.test/auth/v1/token?grant_type=password");
    EXPECT_EQ(request.headers,
              (std::map<std::string, std::string>{{"Content-Type", "application/json"}, {"apikey", "anon"}}));
    EXPECT_EQ(lastBody(), (Json{{"email", "a@b.nl"}, {"password", "geheim"}}));

    http->answer(400);
    http->answer(401);
    http->answer(429);
    http->fail(TransportError(TransportError::Kind::other, "Couldn't resolve host name"));
    EXPECT_EQ(authErrorOf([&] { service.signIn("a", "b"); }), AuthError::invalidCredentials());
    EXPECT_EQ(authErrorOf([&] { service.signIn("a", "b"); }), AuthError::unknown("HTTP 401"));
    EXPECT_EQ(authErrorOf([&] { service.signIn("a", "b"); }), AuthError::rateLimited());
    EXPECT_EQ(authErrorOf([&] { service.signIn("a", "b"); }), AuthError::network());
    // A 2xx that is no token answer is a decoding failure, not a sign-in refusal.
    http->answer(200, R"({"access_token":"a"})");
    EXPECT_THROW(service.signIn("a", "b"), DecodingError);

    http->answer(200, R"({"access_token":"a2","refresh_token":"r2"})");
    EXPECT_EQ(service.refresh("r1").accessToken, "a2");
    EXPECT_EQ(lastBody(), (Json{{"refresh_token", "r1"}}));
    EXPECT_EQ(http->requests().back().url,
              "https://proj.example.test/auth/v1/token?grant_type=refresh_token");
    http->answer(400);
    http->answer(500);
    http->answer(429);
    EXPECT_EQ(authErrorOf([&] { service.refresh("r"); }), AuthError::refreshRejected());
    EXPECT_EQ(authErrorOf([&] { service.refresh("r"); }), AuthError::network());
    EXPECT_EQ(authErrorOf([&] { service.refresh("r"); }), AuthError::rateLimited());
}

TEST_F(LiveAuthServiceTest, SignUpTellsSessionsConfirmationsAndRefusalsApart) {
    http->answer(200, R"({"access_token":"a","refresh_token":"r","user":{"id":"u"}})");
    EXPECT_EQ(service.signUp("n@x.nl", "pw", "Nina").kind, SignUpOutcome::Kind::session);
    EXPECT_EQ(lastBody(), (Json{{"email", "n@x.nl"},
                                {"password", "pw"},
                                {"data", {{"full_name", "Nina"}, {"signup_source", "macos_email"}}}}));
    EXPECT_EQ(http->requests().back().url, "https://proj.example.test/auth/v1/signup");

    http->answer(200, R"({"user":{"id":"u","identities":[]}})");
    EXPECT_EQ(authErrorOf([&] { service.signUp("n@x.nl", "pw", "N"); }), AuthError::emailTaken());
    http->answer(200, R"({"id":"u","email":"n@x.nl"})");
    EXPECT_EQ(service.signUp(" N@x.nl", "pw", "N"), SignUpOutcome::verificationEmailSent(" N@x.nl"));
    http->answer(200, R"({"access_token":"","refresh_token":""})");
    EXPECT_EQ(service.signUp("n@x.nl", "pw", "N").kind, SignUpOutcome::Kind::verificationEmailSent);

    http->answer(422, R"({"msg":"Password should be at least 6 characters"})");
    http->answer(422, R"({"msg":"User already registered; password ignored"})");
    http->answer(429, R"({"msg":"password"})");
    http->answer(500, "oops");
    EXPECT_EQ(authErrorOf([&] { service.signUp("a", "b", "c"); }), AuthError::weakPassword());
    EXPECT_EQ(authErrorOf([&] { service.signUp("a", "b", "c"); }), AuthError::emailTaken());
    EXPECT_EQ(authErrorOf([&] { service.signUp("a", "b", "c"); }), AuthError::rateLimited());
    EXPECT_EQ(authErrorOf([&] { service.signUp("a", "b", "c"); }), AuthError::unknown("signup HTTP 500"));
}

TEST_F(LiveAuthServiceTest, MetadataUpdateAndSignOutCarryTheUsersToken) {
    http->answer(200, "{}");
    service.updateUserMetadata({{"work_profile", "legal"}}, "tok");
    HTTPRequest update = http->requests().back();
    EXPECT_EQ(update.method, "PUT");
    EXPECT_EQ(update.url, "https://proj.example.test/auth/v1/user");
    EXPECT_EQ(update.headers.at("Authorization"), "Bearer tok");
    EXPECT_EQ(update.timeout, 15);
    EXPECT_EQ(lastBody(), (Json{{"data", {{"work_profile", "legal"}}}}));
    http->answer(403);
    EXPECT_EQ(authErrorOf([&] { service.updateUserMetadata({}, "tok"); }),
              AuthError::unknown("updateUser HTTP 403"));

    http->fail(TransportError(TransportError::Kind::other, "down"));
    service.signOut("tok");
    HTTPRequest logout = http->requests().back();
    EXPECT_EQ(logout.url, "https://proj.example.test/auth/v1/logout?scope=local");
    EXPECT_EQ(logout.headers,
              (std::map<std::string, std::string>{{"Authorization", "Bearer tok"}, {"apikey", "anon"}}));
    EXPECT_FALSE(logout.body.has_value());
}

TEST_F(LiveAuthServiceTest, ConfirmAccountLinkReadsAnswersAndStatuses) {
    http->answer(200, R"({"outcome":"account_linked","provider":"google"})");
    EXPECT_EQ(service.confirmAccountLink("lt", std::string("existing")),
              AccountLinkConfirmResult::success("google"));
    HTTPRequest withToken = http->requests().back();
    EXPECT_EQ(withToken.url, "https://proj.example.test/functions/v1/confirm-account-link");
    EXPECT_EQ(withToken.headers.at("Authorization"), "Bearer existing");
    EXPECT_EQ(lastBody(), (Json{{"link_token", "lt"}}));

    http->answer(200, R"({"success":true,"linked_provider":null,"provider":"x"})");
    EXPECT_EQ(service.confirmAccountLink("lt"), AccountLinkConfirmResult::success(std::nullopt));
    EXPECT_EQ(http->requests().back().headers.at("Authorization"), "Bearer stored-token");
    http->answer(200, R"({"success":false})");
    EXPECT_EQ(service.confirmAccountLink("lt"), AccountLinkConfirmResult::error(std::nullopt));
    http->answer(200, R"({"status":"error","error":"Bezet"})");
    EXPECT_EQ(service.confirmAccountLink("lt"), AccountLinkConfirmResult::error("Bezet"));
    http->answer(200, R"({"linked":false})");
    EXPECT_EQ(service.confirmAccountLink("lt"), AccountLinkConfirmResult::error(std::nullopt));

    // With the caller's token the call is on the anonymous road: a 401 is final, not retried.
    http->answer(401);
    http->answer(403);
    http->answer(410);
    http->answer(429);
    http->answer(409, R"({"message":"Al gekoppeld"})");
    EXPECT_EQ(service.confirmAccountLink("lt", std::string("t")), AccountLinkConfirmResult::wrongProvider());
    EXPECT_EQ(tokens->refreshCalls, 0);
    EXPECT_EQ(service.confirmAccountLink("lt", std::string("t")),
              AccountLinkConfirmResult::unauthenticated());
    EXPECT_EQ(service.confirmAccountLink("lt", std::string("t")), AccountLinkConfirmResult::expired());
    EXPECT_EQ(service.confirmAccountLink("lt", std::string("t")), AccountLinkConfirmResult::rateLimited());
    EXPECT_EQ(service.confirmAccountLink("lt", std::string("t")),
              AccountLinkConfirmResult::error("Al gekoppeld"));

    http->fail(TransportError(TransportError::Kind::timeout, "Timeout was reached"));
    EXPECT_THROW(service.confirmAccountLink("lt", std::string("t")), APIError);
}

TEST(LiveAuthServiceWithoutSessionTest, ConfirmWithoutAnyTokenIsUnauthenticated) {
    auto http = std::make_shared<ScriptedHTTPClient>();
    auto clock = std::make_shared<ManualClock>(kNow);
    auto functions = std::make_shared<SupabaseFunctionClient>(AppConfig{}, http, nullptr,
                                                              std::make_shared<CoreLogger>(clock, 10));
    LiveAuthService service(AppConfig{}, http, functions, clock);
    EXPECT_EQ(service.confirmAccountLink("lt"), AccountLinkConfirmResult::unauthenticated());
    EXPECT_TRUE(http->requests().empty());
}
