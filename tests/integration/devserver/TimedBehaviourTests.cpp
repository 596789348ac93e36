#include "StandInClient.h"

#include "core/support/ManualClock.h"
#include "tools/devserver/DevServer.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace kavelo;

namespace {

// The stand-in in-process on a manual clock, so that delays and lifetimes can be crossed without waiting.
class TimedBehaviourTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmpl =
            (std::filesystem::temp_directory_path() / "kavelo-devserver-clock-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        DevServerOptions options;
        options.dataDirectory = dir_;
        options.accessTokenLifetime = 60;
        options.signedUrlLifetime = 120;
        options.pipeline.meetingRowDelay = 5;
        options.pipeline.mappingDelay = 10;
        options.users = {{"anna@example.test", "geheim123"}};
        server_ = std::make_unique<DevServer>(options, clock_);
        client_ = std::make_unique<StandInClient>(server_->start());
    }
    void TearDown() override {
        client_.reset();
        server_.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    std::shared_ptr<ManualClock> clock_ =
        std::make_shared<ManualClock>(TimePoint{std::chrono::hours(24 * 20000)});
    std::filesystem::path dir_;
    std::unique_ptr<DevServer> server_;
    std::unique_ptr<StandInClient> client_;
};

TEST_F(TimedBehaviourTest, MeetingRowAppearsAfterItsDelayAndMappingWritesItsResultLater) {
    auto session = client_->signIn("anna@example.test", "geheim123");
    auto token = session["access_token"].get<std::string>();
    auto h = client_->gateway(token);
    auto init = client_->post("/functions/v1/init-recording",
                              Json{{"user_id", session["user"]["id"]},
                                   {"user_email", "anna@example.test"},
                                   {"user_name", "Anna"},
                                   {"source", "linux"},
                                   {"app_version", "1"},
                                   {"language", "nl"}},
                              h);
    auto id = init.json()["recording_id"].get<std::string>();
    auto uploadHeaders = h;
    uploadHeaders.emplace("x-upsert", "true");
    ASSERT_EQ(
        client_->postRaw("/storage/v1/object/recordings/" + id + "/chunks/00001.aac", "aac", uploadHeaders)
            .status,
        200);

    const std::string byRecording =
        "/rest/v1/meetings?select=id,participants,early_mapping_status&recording_id=eq." + id;
    clock_->advance(4.9);
    EXPECT_EQ(client_->get(byRecording, h).json(), Json::array());
    clock_->advance(0.1);
    auto rows = client_->get(byRecording, h).json();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_TRUE(rows[0]["early_mapping_status"].is_null());

    auto meetingId = rows[0]["id"];
    EXPECT_EQ(client_->post("/functions/v1/early-speaker-mapping", Json{{"meeting_id", meetingId}}, h)
                  .json()["status"],
              "dispatched");
    EXPECT_EQ(client_->post("/functions/v1/early-speaker-mapping", Json{{"meeting_id", meetingId}}, h)
                  .json()["reason"],
              "already_pending");
    clock_->advance(9.9);
    EXPECT_EQ(client_->get(byRecording, h).json()[0]["early_mapping_status"], "pending");
    EXPECT_EQ(client_->get(byRecording, h).json()[0]["participants"], Json::array());
    clock_->advance(0.1);
    rows = client_->get(byRecording, h).json();
    EXPECT_EQ(rows[0]["early_mapping_status"], "done");
    EXPECT_EQ(rows[0]["participants"].size(), 2u);
}

TEST_F(TimedBehaviourTest, AccessTokensAndSignedUrlsExpireAfterTheirLifetimes) {
    auto session = client_->signIn("anna@example.test", "geheim123");
    EXPECT_EQ(session["expires_in"], 60);
    auto token = session["access_token"].get<std::string>();
    clock_->advance(59);
    EXPECT_EQ(client_->get("/auth/v1/user", client_->gateway(token)).status, 200);
    clock_->advance(1);
    EXPECT_EQ(client_->get("/auth/v1/user", client_->gateway(token)).status, 401);
    auto expired = client_->post("/functions/v1/init-recording", Json::object(), client_->gateway(token));
    EXPECT_EQ(expired.status, 401);
    EXPECT_EQ(expired.json()["error_code"], "jwt_expired");

    auto seeded =
        client_->post("/__admin/recordings", Json{{"recording_id", "r1"}, {"recording_secret", "s"}});
    ASSERT_EQ(seeded.status, 200);
    auto urls = client_->post("/functions/v1/generate-upload-urls",
                              Json{{"recording_id", "r1"}, {"start_sequence", 1}, {"count", 2}},
                              {{"x-recording-secret", "s"}});
    auto first = StandInClient::pathOf(urls.json()["urls"][0]["url"]);
    auto second = StandInClient::pathOf(urls.json()["urls"][1]["url"]);
    EXPECT_EQ(client_->put(first, "a").status, 200);
    clock_->advance(120);
    EXPECT_EQ(client_->put(second, "b").status, 401);
}

} // namespace

TEST_F(TimedBehaviourTest, RecordingStatusStepsFromProcessingToSentAfterFinalize) {
    auto session = client_->signIn("anna@example.test", "geheim123");
    auto h = client_->gateway(session["access_token"].get<std::string>());
    auto id = client_
                  ->post("/functions/v1/init-recording",
                         Json{{"user_id", session["user"]["id"]},
                              {"user_email", "anna@example.test"},
                              {"user_name", "Anna"},
                              {"source", "linux"},
                              {"app_version", "1"},
                              {"language", "nl"}},
                         h)
                  .json()["recording_id"]
                  .get<std::string>();
    auto uploadHeaders = h;
    uploadHeaders.emplace("x-upsert", "true");
    ASSERT_EQ(
        client_->postRaw("/storage/v1/object/recordings/" + id + "/chunks/00001.aac", "aac", uploadHeaders)
            .status,
        200);
    clock_->advance(5); // the meetings row appears
    auto meetingId = client_->get("/rest/v1/meetings?select=id&recording_id=eq." + id, h).json()[0]["id"];
    auto status = [&] {
        return client_->post("/rest/v1/rpc/get_recording_status", Json{{"p_meeting_id", meetingId}}, h)
            .json();
    };
    EXPECT_EQ(status()[0]["phase"], "recording");
    EXPECT_EQ(client_->post("/rest/v1/rpc/get_recording_status", Json{{"meeting_id", meetingId}}, h).status,
              400);
    EXPECT_EQ(client_->post("/rest/v1/rpc/get_recording_status", Json{{"p_meeting_id", "no-such-meeting"}}, h)
                  .json(),
              Json::array());

    const auto finalizedAt = clock_->now();
    ASSERT_EQ(client_
                  ->post("/functions/v1/finalize-recording",
                         Json{{"recording_id", id},
                              {"user_id", session["user"]["id"]},
                              {"user_email", "anna@example.test"},
                              {"recipients", Json::array({Json{{"email", "bram@example.test"}}})}},
                         h)
                  .status,
              200);
    EXPECT_EQ(status()[0]["phase"], "processing");
    clock_->advance(4.9);
    EXPECT_EQ(status()[0]["phase"], "processing");
    clock_->advance(0.1);
    EXPECT_EQ(status()[0]["phase"], "completed");
    EXPECT_TRUE(status()[0]["delivered_at"].is_null());
    clock_->advance(5);
    auto sent = status();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0]["phase"], "sent");
    EXPECT_EQ(sent[0]["recipient_count"], 1);
    EXPECT_EQ(sent[0]["delivered_at"], CoreJSON::formatDate(finalizedAt + std::chrono::seconds(10)));
}
