#include "helpers/DevServerProcess.h"

#include "core/accounts/AuthError.h"
#include "core/accounts/LiveAuthService.h"
#include "core/backend/APIError.h"
#include "core/backend/AccessTokenProvider.h"
#include "core/backend/CurlHTTPClient.h"
#include "core/backend/LiveRecordingAPI.h"
#include "core/backend/SupabaseFunctionClient.h"
#include "core/backend/SupabaseRestClient.h"
#include "core/support/SystemClock.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <mutex>

using namespace kavelo;

namespace {

// The live clients of the recording road and of sign-in against the stand-in: both sides of the wire
// are ours, so a key spelled differently on one side shows here.

// Holds a session and refreshes it through the auth service when the server refuses the token.
class RefreshingTokens final : public AccessTokenProvider {
  public:
    RefreshingTokens(std::shared_ptr<LiveAuthService> auth, AuthSession session)
        : auth_(std::move(auth)), session_(std::move(session)) {}
    std::optional<std::string> currentAccessToken() override {
        std::lock_guard lock(mutex_);
        return session_.accessToken;
    }
    std::optional<std::string> refreshedAccessToken() override {
        std::string refreshToken;
        {
            std::lock_guard lock(mutex_);
            refreshToken = session_.refreshToken;
            ++refreshes_;
        }
        auto fresh = auth_->refresh(refreshToken);
        std::lock_guard lock(mutex_);
        session_ = fresh;
        return session_.accessToken;
    }
    int refreshes() {
        std::lock_guard lock(mutex_);
        return refreshes_;
    }

  private:
    std::shared_ptr<LiveAuthService> auth_;
    std::mutex mutex_;
    AuthSession session_; // guarded by mutex_
    int refreshes_ = 0;   // guarded by mutex_
};

class ClientsAgainstStandInTest : public ::testing::Test {
  protected:
    void SetUp() override {
        config_.supabaseUrl = server_.baseUrl();
        config_.anonKey = server_.anonKey();
        auth_ = std::make_shared<LiveAuthService>(
            config_, http_, std::make_shared<SupabaseFunctionClient>(config_, http_, nullptr, logger_),
            clock_);
    }
    Json admin(const std::string& path) {
        auto r = admin_.Get(path);
        return r ? CoreJSON::decode(r->body) : Json();
    }

    DevServerProcess server_{
        {"--meeting-row-delay", "0", "--mapping-delay", "0", "--user", "anna@example.test:geheim123"}};
    httplib::Client admin_{"127.0.0.1", server_.port()};
    std::shared_ptr<SystemClock> clock_ = std::make_shared<SystemClock>();
    std::shared_ptr<CoreLogger> logger_ = std::make_shared<CoreLogger>(clock_, 200);
    std::shared_ptr<CurlHTTPClient> http_ = std::make_shared<CurlHTTPClient>();
    AppConfig config_;
    std::shared_ptr<LiveAuthService> auth_;
};

TEST_F(ClientsAgainstStandInTest, RecordingRoadThroughLiveRecordingApiSurvivesAnExpiredToken) {
    auto session = auth_->signIn("anna@example.test", "geheim123");
    EXPECT_EQ(session.user.email, "anna@example.test");
    auto tokens = std::make_shared<RefreshingTokens>(auth_, session);
    LiveRecordingAPI api(std::make_shared<SupabaseFunctionClient>(config_, http_, tokens, logger_),
                         std::make_shared<SupabaseRestClient>(config_, http_, tokens));

    InitRecordingRequest request{
        session.user.id, session.user.email, "Anna", "Weekstart", "linux", "1.0.0", "nl", std::nullopt,
        "system"};
    auto created = api.initRecording(request);
    ASSERT_TRUE(created.recordingSecret.has_value());

    HTTPRequest upload;
    upload.method = "POST";
    upload.url =
        server_.baseUrl() + "/storage/v1/object/recordings/" + created.recordingId + "/chunks/00002.aac";
    upload.headers = {{"apikey", config_.anonKey},
                      {"Authorization", "Bearer " + session.accessToken},
                      {"Content-Type", "audio/aac"},
                      {"x-upsert", "true"}};
    upload.body = bytesFromString("aac");
    ASSERT_EQ(http_->send(upload).statusCode, 200);

    EXPECT_EQ(api.listRecordingChunks(created.recordingId), (ChunkReconciliation{{2}, {1}, true}));
    auto meetingId = api.resolveMeetingId(created.recordingId);
    ASSERT_TRUE(meetingId.has_value());
    EXPECT_TRUE(api.triggerEarlySpeakerMapping(*meetingId).shouldPoll());
    auto mapping = api.fetchMeetingMapping(*meetingId);
    EXPECT_EQ(mapping.participants, (std::vector<std::string>{"Anna de Vries", "Bram Jansen"}));
    EXPECT_EQ(mapping.earlyMappingStatus, "done");

    // Every access token dies; the function and REST clients refresh once and carry on.
    ASSERT_TRUE(admin_.Post("/__admin/tokens/expire", "{}", "application/json"));
    EXPECT_TRUE(api.listRecordingChunks(created.recordingId).checked);
    EXPECT_EQ(api.resolveMeetingId(created.recordingId), meetingId);
    EXPECT_GE(tokens->refreshes(), 1);

    DiagnosticsPayload diagnostics;
    diagnostics.platform = "linux";
    diagnostics.recordingId = created.recordingId;
    api.diagnosticSync(created.recordingId, session.user.id, diagnostics);
    FinalizePayload payload;
    payload.recordingId = created.recordingId;
    payload.userId = session.user.id;
    payload.userEmail = session.user.email;
    payload.userName = "Anna";
    payload.recipients = {{"bram@example.test", "Bram"}};
    payload.uploadMode = config_.uploadMode;
    payload.outputLanguage = "nl";
    payload.diagnostics = diagnostics;
    api.finalizeRecording(payload);
    // The same request again (a retry, a relaunch after a crash mid-request) asks for no second report.
    api.finalizeRecording(payload);
    auto seen = admin("/__admin/recordings/" + created.recordingId);
    ASSERT_EQ(seen["finalize_requests"].size(), 1u);
    EXPECT_EQ(seen["finalize_repeats"], 1);
    EXPECT_EQ(seen["finalize_requests"][0]["recipients"][0]["email"], "bram@example.test");
    EXPECT_EQ(seen["diagnostic_syncs"].size(), 1u);
    EXPECT_EQ(seen["audio_mode"], "system");
}

TEST_F(ClientsAgainstStandInTest, ATokenRefusedAsTheHostedBackendDoesIsRefreshedOnceEverywhere) {
    for (const char* status : {"400", "403"}) {
        SCOPED_TRACE(status);
        server_.restart({"--meeting-row-delay", "0", "--user", "anna@example.test:geheim123",
                         "--expired-token-status", status});
        auto session = auth_->signIn("anna@example.test", "geheim123");
        auto tokens = std::make_shared<RefreshingTokens>(auth_, session);
        auto rest = std::make_shared<SupabaseRestClient>(config_, http_, tokens);
        LiveRecordingAPI api(std::make_shared<SupabaseFunctionClient>(config_, http_, tokens, logger_), rest);
        auto created = api.initRecording({session.user.id, session.user.email, "Anna", "Weekstart", "linux",
                                          "1.0.0", "nl", std::nullopt, "system"});

        // Functions, tables and storage each answer the dead token with the status given and a JWT
        // message; each client refreshes once and goes on.
        ASSERT_TRUE(admin_.Post("/__admin/tokens/expire", "{}", "application/json"));
        EXPECT_TRUE(api.listRecordingChunks(created.recordingId).checked);
        ASSERT_TRUE(admin_.Post("/__admin/tokens/expire", "{}", "application/json"));
        EXPECT_TRUE(api.resolveMeetingId(created.recordingId).has_value());
        ASSERT_TRUE(admin_.Post("/__admin/tokens/expire", "{}", "application/json"));
        EXPECT_NO_THROW(
            rest->uploadStorageObject("logos", "org/logo.png", bytesFromString("png"), "image/png"));
        EXPECT_EQ(tokens->refreshes(), 3);
    }
}

TEST_F(ClientsAgainstStandInTest, AHostileBackendCannotHandOutAnIdThatNamesAPlaceOnDisk) {
    for (const char* mode : {"long", "path", "slash"}) {
        SCOPED_TRACE(mode);
        server_.restart({"--user", "anna@example.test:geheim123", "--hostile-recording-id", mode});
        auto session = auth_->signIn("anna@example.test", "geheim123");
        auto tokens = std::make_shared<RefreshingTokens>(auth_, session);
        LiveRecordingAPI api(std::make_shared<SupabaseFunctionClient>(config_, http_, tokens, logger_),
                             std::make_shared<SupabaseRestClient>(config_, http_, tokens));
        try {
            api.initRecording({session.user.id, session.user.email, "Anna", "Weekstart", "linux", "1.0.0",
                               "nl", std::nullopt, "system"});
            ADD_FAILURE() << "an unusable id was accepted";
        } catch (const APIError& e) {
            EXPECT_EQ(e.kind(), APIError::Kind::decoding);
        }
    }
}

TEST_F(ClientsAgainstStandInTest, AHostileChunkListIsReadAsUncheckedWithoutHangingOrGrowing) {
    for (const char* mode : {"huge", "negative", "flood"}) {
        SCOPED_TRACE(mode);
        server_.restart({"--user", "anna@example.test:geheim123", "--hostile-chunk-list", mode});
        auto session = auth_->signIn("anna@example.test", "geheim123");
        auto tokens = std::make_shared<RefreshingTokens>(auth_, session);
        LiveRecordingAPI api(std::make_shared<SupabaseFunctionClient>(config_, http_, tokens, logger_),
                             std::make_shared<SupabaseRestClient>(config_, http_, tokens));
        auto created = api.initRecording({session.user.id, session.user.email, "Anna", "Weekstart", "linux",
                                          "1.0.0", "nl", std::nullopt, "system"});
        EXPECT_EQ(api.listRecordingChunks(created.recordingId), ChunkReconciliation::unchecked());
    }
    // Duplicates are only noise: they fold into the one sequence they repeat.
    server_.restart({"--user", "anna@example.test:geheim123", "--hostile-chunk-list", "duplicate"});
    auto session = auth_->signIn("anna@example.test", "geheim123");
    auto tokens = std::make_shared<RefreshingTokens>(auth_, session);
    LiveRecordingAPI api(std::make_shared<SupabaseFunctionClient>(config_, http_, tokens, logger_),
                         std::make_shared<SupabaseRestClient>(config_, http_, tokens));
    auto created = api.initRecording({session.user.id, session.user.email, "Anna", "Weekstart", "linux",
                                      "1.0.0", "nl", std::nullopt, "system"});
    HTTPRequest upload;
    upload.method = "POST";
    upload.url =
        server_.baseUrl() + "/storage/v1/object/recordings/" + created.recordingId + "/chunks/00001.aac";
    upload.headers = {{"apikey", config_.anonKey},
                      {"Authorization", "Bearer " + session.accessToken},
                      {"Content-Type", "audio/aac"}};
    upload.body = bytesFromString("aac");
    ASSERT_EQ(http_->send(upload).statusCode, 200);
    EXPECT_EQ(api.listRecordingChunks(created.recordingId), (ChunkReconciliation{{1}, {}, true}));
}

TEST_F(ClientsAgainstStandInTest, AuthServiceReadsEveryAnswerOfTheAuthApi) {
    auto kindOf = [](auto&& call) {
        try {
            call();
        } catch (const AuthError& e) {
            return e.kind();
        }
        return AuthError::Kind::unknown;
    };
    EXPECT_EQ(kindOf([&] { auth_->signIn("anna@example.test", "wrong"); }),
              AuthError::Kind::invalidCredentials);
    auto session = auth_->signIn("anna@example.test", "geheim123");
    auto renewed = auth_->refresh(session.refreshToken);
    EXPECT_NE(renewed.accessToken, session.accessToken);
    EXPECT_EQ(kindOf([&] { auth_->refresh(session.refreshToken); }), AuthError::Kind::refreshRejected);

    EXPECT_EQ(kindOf([&] { auth_->signUp("new@example.test", "123", "Nieuw"); }),
              AuthError::Kind::weakPassword);
    auto made = auth_->signUp("new@example.test", "123456", "Nieuw");
    EXPECT_EQ(made.kind, SignUpOutcome::Kind::session);
    EXPECT_EQ(kindOf([&] { auth_->signUp("new@example.test", "123456", "Nieuw"); }),
              AuthError::Kind::emailTaken);

    auth_->updateUserMetadata({{"work_profile", "sales"}}, renewed.accessToken);
    auto again = auth_->signIn("anna@example.test", "geheim123");
    EXPECT_EQ(again.user.workProfile, "sales");

    // OAuth: the flow's URL leads to the pretend provider, whose redirect carries the code.
    auto flow = auth_->prepareOAuth(OAuthProvider::google, std::nullopt);
    auto consent = admin_.Get(flow.authorizeURL.substr(flow.authorizeURL.find("/auth/v1/")));
    ASSERT_TRUE(consent && consent->status == 302);
    auto location = consent->get_header_value("Location");
    auto outcome = auth_->exchangeOAuthCode(location.substr(location.find("code=") + 5), flow.codeVerifier);
    ASSERT_EQ(outcome.kind(), OAuthOutcome::Kind::session);
    EXPECT_EQ(outcome.asSession()->user.email, "google-user@example.test");
    auto reused = auth_->exchangeOAuthCode(location.substr(location.find("code=") + 5), flow.codeVerifier);
    EXPECT_EQ(reused.kind(), OAuthOutcome::Kind::error);

    auth_->signOut(again.accessToken);
    EXPECT_EQ(kindOf([&] {
                  auth_->updateUserMetadata({{"a", "b"}}, again.accessToken);
              }),
              AuthError::Kind::unknown);
}

} // namespace
